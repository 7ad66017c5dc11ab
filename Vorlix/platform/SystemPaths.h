// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: where the library's own file and the system's tool stand.
#pragma once

#include <string>

namespace vorlix {

/// The log file. Privileged hosts, and tools that read the log, rely on this path.
inline constexpr const char* kLogFile = "/tmp/quandrel.log";

/// The tool that reports System Integrity Protection. The library runs it nowhere else.
inline constexpr const char* kStatusTool = "/usr/bin/csrutil";

/// Both paths are the same on every system. They are a port so that tests write no log but their own and bring a tool
/// of their own.
class SystemPaths {
 public:
  virtual ~SystemPaths() = default;

  /// Full path of the log file. Any thread may ask.
  virtual std::string logFile() = 0;

  /// Full path of the tool that reports System Integrity Protection.
  virtual std::string statusTool() = 0;
};

}  // namespace vorlix
