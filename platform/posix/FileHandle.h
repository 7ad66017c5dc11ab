// SPDX-License-Identifier: Apache-2.0
//
// A device handle over a file descriptor or a window of it.
#pragma once

#include <Vorlix/platform/DeviceFile.h>

#include <memory>

#include "DescriptorCalls.h"
#include "Extent.h"

namespace vorlix {

/// Reads and writes the bytes of `window`. Nothing outside it can be reached, so a disk-image file never grows.
class FileHandle final : public DeviceHandle {
 public:
  /// Takes over `descriptor`. `lock` is released after the descriptor is closed.
  FileHandle(int descriptor, Extent window, std::shared_ptr<void> lock,
             std::optional<uint32_t> blockSize = std::nullopt);
  ~FileHandle() override;
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;

  ssize_t readAt(void* buffer, size_t count, uint64_t offset) override;
  ssize_t writeAt(const void* buffer, size_t count, uint64_t offset) override;
  int sync() override;
  bool isSyncedWith(const DeviceHandle& other) const override;
  ssize_t readMediumAt(void* buffer, size_t count, uint64_t offset) override;
  std::optional<DeviceIdentity> identity() override { return identityOf(descriptor_, window_.offset); }
  std::optional<uint64_t> size() override { return window_.size; }
  std::optional<DataRun> dataFrom(uint64_t offset) override;
  std::optional<uint32_t> blockSize() override { return blockSize_; }
  int close() override;

 private:
  size_t countInside(size_t count, uint64_t offset) const;

  std::shared_ptr<void> lock_;
  int descriptor_;
  Extent window_;
  std::optional<uint32_t> blockSize_;
};

}  // namespace vorlix
