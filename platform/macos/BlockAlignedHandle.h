// SPDX-License-Identifier: Apache-2.0
//
// Transfers of any size over a device that takes whole blocks only, as raw disk nodes do.
#pragma once

#include <Vorlix/platform/DeviceFile.h>

#include <memory>
#include <vector>

namespace vorlix {

/// Passes whole blocks through and transfers parts of blocks by way of a buffer. Writing a part of a block reads that
/// block first and writes its other bytes back as they were read.
class BlockAlignedHandle final : public DeviceHandle {
 public:
  /// Takes over `device`, which starts and ends at a multiple of `blockSize` (at least 1).
  BlockAlignedHandle(std::unique_ptr<DeviceHandle> device, uint32_t blockSize);

  ssize_t readAt(void* buffer, size_t count, uint64_t offset) override;
  ssize_t writeAt(const void* buffer, size_t count, uint64_t offset) override;
  int sync() override { return device_->sync(); }
  std::optional<DeviceIdentity> identity() override { return device_->identity(); }
  std::optional<uint64_t> size() override { return device_->size(); }
  int close() override { return device_->close(); }

 private:
  ssize_t readPart(uint8_t* to, size_t count, uint64_t offset);
  ssize_t writePart(const uint8_t* from, size_t count, uint64_t offset);

  std::unique_ptr<DeviceHandle> device_;
  std::vector<uint8_t> block_;
};

}  // namespace vorlix
