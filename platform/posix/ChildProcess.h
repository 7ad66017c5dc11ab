// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/ChildProcess.h>

namespace vorlix {

/// Children started with posix_spawn(). There is no thread and no handler of SIGCHLD behind it; a host that ignores
/// that signal or waits for any child takes the statuses away.
class PosixChildProcess final : public ChildProcess {
 public:
  std::shared_ptr<Child> create(ChildOutputs outputs, ChildInput input) override;
};

}  // namespace vorlix
