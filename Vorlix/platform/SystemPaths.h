// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the paths of the log and of the tool that the library runs.
#pragma once

#include <string>

namespace vorlix {

/// The log file. Privileged hosts, and tools that read the log, rely on this path.
inline constexpr const char* kLogFile = "/tmp/quandrel.log";

/// The tool that reports System Integrity Protection. The library runs it only from this path.
inline constexpr const char* kStatusTool = "/usr/bin/csrutil";

/// Both paths are the same on every system. They are a port so that tests can use their own log and their own tool.
class SystemPaths {
 public:
  virtual ~SystemPaths() = default;

  /// Returns the full path of the log file. Any thread may call this.
  virtual std::string logFile() = 0;

  /// Returns the full path of the tool that reports System Integrity Protection.
  virtual std::string statusTool() = 0;
};

}  // namespace vorlix
