// SPDX-License-Identifier: Apache-2.0
//
// Reading the small text files in which the kernel and udev tell of devices.
#pragma once

#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>

namespace vorlix {

/// A file's text without the spaces, line ends and NULs at its end. Absent where it cannot be read or nothing is left.
inline std::optional<std::string> readTrimmed(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  text.erase(text.find_last_not_of(std::string(" \t\r\n\0", 5)) + 1);
  if (!file || text.empty()) return std::nullopt;
  return text;
}

/// A whole file that is one decimal number. Absent for anything else.
inline std::optional<uint64_t> readWholeNumber(const std::filesystem::path& path) {
  const std::optional<std::string> text = readTrimmed(path);
  if (!text) return std::nullopt;
  uint64_t number = 0;
  const char* const end = text->data() + text->size();
  const auto [stop, error] = std::from_chars(text->data(), end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

/// A file that holds 0 or 1. Absent for anything else.
inline std::optional<bool> readFlag(const std::filesystem::path& path) {
  const std::optional<uint64_t> number = readWholeNumber(path);
  if (!number || *number > 1) return std::nullopt;
  return *number == 1;
}

/// The properties in a record of udev's database: its lines "E:KEY=value". Empty without a record.
inline std::map<std::string, std::string> readUdevRecord(const std::filesystem::path& path) {
  std::map<std::string, std::string> properties;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const size_t equals = line.find('=');
    if (line.rfind("E:", 0) == 0 && equals != std::string::npos) {
      properties[line.substr(2, equals - 2)] = line.substr(equals + 1);
    }
  }
  return properties;
}

}  // namespace vorlix
