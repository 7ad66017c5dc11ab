// SPDX-License-Identifier: Apache-2.0
/// @file
/// Receiving what the library logs.
#pragma once

#include <string>

namespace vorlix {

/// An object that receives log lines. A delegate of the library may derive from this class as well as from Object; a
/// delegate that does not receives nothing.
class LogReceiver {
 public:
  virtual ~LogReceiver() = default;

  /// Receives one message without a line feed at its end. Keyword form: `log:`.
  virtual void log(const std::string& line) = 0;
};

}  // namespace vorlix
