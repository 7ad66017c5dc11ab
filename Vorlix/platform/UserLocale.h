// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: how the user writes numbers.
#pragma once

#include <string>

namespace vorlix {

class UserLocale {
 public:
  virtual ~UserLocale() = default;

  /// What stands before decimals, in UTF-8: on macOS as set in the system's preferences, elsewhere that of the locale
  /// in LC_ALL, LC_NUMERIC or LANG. The locale that the host has set for the process does not matter and is left alone.
  /// A point where there is none to be had.
  virtual std::string decimalSeparator() = 0;
};

}  // namespace vorlix
