// SPDX-License-Identifier: Apache-2.0
#include "BlockAlignedHandle.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace vorlix {
namespace {

// Splits a transfer at block boundaries: runs of whole blocks, and the parts of blocks at either end. Stops at the
// first transfer that fails or falls short, and returns what was transferred until then.
template <typename Whole, typename Part>
ssize_t transferInBlocks(size_t count, uint64_t offset, size_t blockSize, Whole whole, Part part) {
  size_t done = 0;
  while (done < count) {
    const uint64_t position = offset + done;
    const auto inBlock = static_cast<size_t>(position % blockSize);
    const size_t rest = count - done;
    const bool isWhole = inBlock == 0 && rest >= blockSize;
    const size_t step = isWhole ? rest - rest % blockSize : std::min(rest, blockSize - inBlock);
    const ssize_t moved = isWhole ? whole(done, step, position) : part(done, step, position);
    if (moved < 0 && done == 0) return -1;
    if (moved <= 0) break;
    done += static_cast<size_t>(moved);
    if (static_cast<size_t>(moved) < step) break;
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

BlockAlignedHandle::BlockAlignedHandle(std::unique_ptr<DeviceHandle> device, uint32_t blockSize)
    : device_(std::move(device)), block_(blockSize) {}

ssize_t BlockAlignedHandle::readAt(void* buffer, size_t count, uint64_t offset) {
  auto* const to = static_cast<uint8_t*>(buffer);
  return transferInBlocks(
      count, offset, block_.size(),
      [&](size_t done, size_t step, uint64_t position) { return device_->readAt(to + done, step, position); },
      [&](size_t done, size_t step, uint64_t position) { return readPart(to + done, step, position); });
}

ssize_t BlockAlignedHandle::writeAt(const void* buffer, size_t count, uint64_t offset) {
  const auto* const from = static_cast<const uint8_t*>(buffer);
  return transferInBlocks(
      count, offset, block_.size(),
      [&](size_t done, size_t step, uint64_t position) { return device_->writeAt(from + done, step, position); },
      [&](size_t done, size_t step, uint64_t position) { return writePart(from + done, step, position); });
}

ssize_t BlockAlignedHandle::readPart(uint8_t* to, size_t count, uint64_t offset) {
  const auto inBlock = static_cast<size_t>(offset % block_.size());
  const ssize_t got = device_->readAt(block_.data(), block_.size(), offset - inBlock);
  if (got < 0) return -1;
  if (static_cast<size_t>(got) <= inBlock) return 0;
  const size_t part = std::min(count, static_cast<size_t>(got) - inBlock);
  std::copy_n(block_.data() + inBlock, part, to);
  return static_cast<ssize_t>(part);
}

ssize_t BlockAlignedHandle::writePart(const uint8_t* from, size_t count, uint64_t offset) {
  const auto inBlock = static_cast<size_t>(offset % block_.size());
  const ssize_t got = device_->readAt(block_.data(), block_.size(), offset - inBlock);
  if (got < 0) return -1;
  if (static_cast<size_t>(got) < block_.size()) {  // an incomplete block cannot be written back
    errno = got == 0 ? ENOSPC : EIO;
    return -1;
  }
  std::copy_n(from, count, block_.data() + inBlock);
  const ssize_t put = device_->writeAt(block_.data(), block_.size(), offset - inBlock);
  if (put < 0) return -1;
  if (static_cast<size_t>(put) <= inBlock) return 0;
  return static_cast<ssize_t>(std::min(count, static_cast<size_t>(put) - inBlock));
}

}  // namespace vorlix
