// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/Shell.h>

namespace vorlix {

/// Runs commands with system() of the C library.
class PosixShell final : public Shell {
 public:
  int run(const std::string& command) override;
};

}  // namespace vorlix
