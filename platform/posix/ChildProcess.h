// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/ChildProcess.h>

namespace vorlix {

/// Children started with posix_spawn(), without a thread and without a handler for SIGCHLD. If a host ignores that
/// signal or waits for any child, their statuses are lost.
class PosixChildProcess final : public ChildProcess {
 public:
  std::shared_ptr<Child> create(ChildOutputs outputs, ChildInput input) override;
};

}  // namespace vorlix
