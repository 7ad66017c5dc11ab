// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

#include "Dissenters.h"

namespace vorlix {

/// Calls a function with the path of each item below a folder, and stops at the first refusal.
template <typename Function>
Refusal forEachBelow(const std::string& folder, Function function) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::recursive_directory_iterator entry(folder, error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    if (Refusal refusal = function(entry->path().string())) return refusal;
  }
  if (error) return dissenterFor(error.value(), folder);
  return std::nullopt;
}

}  // namespace vorlix
