// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the user's number format.
#pragma once

#include <string>

namespace vorlix {

/// Port: the user's number format.
class UserLocale {
 public:
  virtual ~UserLocale() = default;

  /// Returns the decimal separator in UTF-8: on macOS from the user's preferences, elsewhere from the locale in LC_ALL,
  /// LC_NUMERIC or LANG; a point if it cannot be found out. The process's locale, which belongs to the host, is neither
  /// used nor changed.
  virtual std::string decimalSeparator() = 0;
};

}  // namespace vorlix
