// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/Shell.h>

namespace vorlix {

/// The C library's system().
class PosixShell final : public Shell {
 public:
  int run(const std::string& command) override;
};

}  // namespace vorlix
