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

  /// Whether a read has met the end. Any thread may ask.
  bool hasEnded() const { return ended_; }

 private:
  void complete();

  Descriptor readEnd_;
  std::atomic<bool> ended_ = false;
  Completion completion_;
  std::unique_ptr<LoopSource> source_;  // of the pending read; it ends before the descriptor does
};

}  // namespace vorlix
