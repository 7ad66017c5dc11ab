// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/SystemPaths.h>

namespace vorlix {

class PosixSystemPaths final : public SystemPaths {
 public:
  std::string logFile() override { return kLogFile; }
  std::string statusTool() override { return kStatusTool; }
};

}  // namespace vorlix
