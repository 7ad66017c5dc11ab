// SPDX-License-Identifier: Apache-2.0
/// @file
/// Paths chosen by a test.
#pragma once

#include <Vorlix/platform/SystemPaths.h>

#include <string>
#include <utility>

namespace vorlix {

/// Has the usual paths until a test sets others. Set none while another thread may log.
class SimulatedSystemPaths : public SystemPaths {
 public:
  void setLogFile(std::string path) { logFile_ = std::move(path); }        ///< a real file
  void setStatusTool(std::string path) { statusTool_ = std::move(path); }  ///< a path of the simulated machine

  std::string logFile() override { return logFile_; }
  std::string statusTool() override { return statusTool_; }

 private:
  std::string logFile_ = kLogFile;
  std::string statusTool_ = kStatusTool;
};

}  // namespace vorlix
