// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/ChildProcess.h>

#include <atomic>
#include <memory>

#include <Vorlix/platform/Descriptor.h>
#include "DescriptorSource.h"

namespace vorlix {

/// The read end of a pipe.
class PipeOutput final : public ChildOutput {
 public:
  explicit PipeOutput(Descriptor readEnd) : readEnd_(std::move(readEnd)) {}

  Data read() override;
  Data readAvailable() override;
  void readInBackground(Completion completion) override;
  void cancelBackgroundRead() override;

  /// Returns whether a read has reached the end. Any thread may call this.
  bool hasEnded() const { return ended_; }

 private:
  void complete();

  Descriptor readEnd_;
  std::atomic<bool> ended_ = false;
  Completion completion_;
  std::unique_ptr<LoopSource> source_;  // of the pending read; destroyed before the descriptor
};

}  // namespace vorlix
