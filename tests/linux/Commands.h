// SPDX-License-Identifier: Apache-2.0
//
// The general disk tools with which tests compare results.
#pragma once

#include <stdio.h>

#include <regex>
#include <stdexcept>
#include <string>

#include "CapturedTree.h"

namespace vorlix::test {

/// Runs a shell command and returns its output without trailing line feeds. @throws std::runtime_error if it fails.
inline std::string run(const std::string& command) {
  FILE* const pipe = popen(("PATH=$PATH:/usr/sbin:/sbin LC_ALL=C; " + command).c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("cannot run " + command);
  std::string output;
  for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) output += static_cast<char>(c);
  if (pclose(pipe) != 0) throw std::runtime_error("failed: " + command + "\n" + output);
  while (!output.empty() && output.back() == '\n') output.pop_back();
  return output;
}

/// Returns the first group of the first match of `pattern`. @throws std::runtime_error if there is no match.
inline std::string capture(const std::string& text, const std::string& pattern) {
  std::smatch match;
  if (!std::regex_search(text, match, std::regex(pattern))) throw std::runtime_error(pattern + " is not in\n" + text);
  return match[1];
}

/// Creates a sparse file of 64 MiB and partitions it as on a Mac: an EFI System Partition as slice 1, no slice 2, and
/// Windows data as slice 3.
inline void makeMacImage(const std::string& path) {
  static const TemporaryFolder folder;  // sgdisk takes a second, so copy its result
  const std::string first = folder.path() / "mac.img";
  if (!std::filesystem::exists(first)) {
    run("truncate -s 64M '" + first + "'");
    run("sgdisk -o -a 1 -U 3F2504E0-4F89-41D3-9A0C-0305E82C3301 -n 1:40:20519 -t 1:EF00 "
        "-u 1:11111111-2222-4333-8444-55555555555A -n 3:20520:61479 -t 3:0700 "
        "-u 3:00112233-4455-6677-8899-AABBCCDDEEFF '" +
        first + "' >/dev/null");
  }
  run("cp --sparse=always '" + first + "' '" + path + "'");
}

}  // namespace vorlix::test
