// SPDX-License-Identifier: Apache-2.0
#include "FileHandle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace vorlix {
namespace {

// Repeats a transfer until it is complete, the device ends, or it fails. Returns what was transferred before a failure,
// so that callers see how far it went.
template <typename Transfer>
ssize_t transferAll(size_t count, Transfer transfer) {
  size_t done = 0;
  while (done < count) {
    const ssize_t step = transfer(done, count - done);
    if (step < 0 && errno == EINTR) continue;
    if (step < 0 && done == 0) return -1;
    if (step <= 0) break;
    done += static_cast<size_t>(step);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

FileHandle::FileHandle(int descriptor, Extent window, std::shared_ptr<void> lock, std::optional<uint32_t> blockSize)
    : lock_(std::move(lock)), descriptor_(descriptor), window_(window), blockSize_(blockSize) {}

FileHandle::~FileHandle() {
  static_cast<void>(FileHandle::close());
}

size_t FileHandle::countInside(size_t count, uint64_t offset) const {
  if (offset >= window_.size) return 0;
  return static_cast<size_t>(std::min<uint64_t>(count, window_.size - offset));
}

ssize_t FileHandle::readAt(void* buffer, size_t count, uint64_t offset) {
  return transferAll(countInside(count, offset), [&](size_t done, size_t rest) {
    return pread(descriptor_, static_cast<char*>(buffer) + done, rest,
                 static_cast<off_t>(window_.offset + offset + done));
  });
}

ssize_t FileHandle::writeAt(const void* buffer, size_t count, uint64_t offset) {
  const size_t inside = countInside(count, offset);
  if (inside == 0 && count != 0) {
    errno = ENOSPC;
    return -1;
  }
  const ssize_t written = transferAll(inside, [&](size_t done, size_t rest) {
    return pwrite(descriptor_, static_cast<const char*>(buffer) + done, rest,
                  static_cast<off_t>(window_.offset + offset + done));
  });
  constexpr ssize_t kMuch = ssize_t{1} << 20;
  if (written >= kMuch) startWriting(descriptor_, window_.offset + offset, static_cast<uint64_t>(written));
  return written;
}

ssize_t FileHandle::readMediumAt(void* buffer, size_t count, uint64_t offset) {
  forgetCached(descriptor_, window_.offset + offset, countInside(count, offset));
  return FileHandle::readAt(buffer, count, offset);
}

// The position of the descriptor moves, which no other call relies on.
std::optional<DataRun> FileHandle::dataFrom(uint64_t offset) {
  const DataRun none = {window_.size, 0};
  if (offset >= window_.size) return none;
  const off_t first = lseek(descriptor_, static_cast<off_t>(window_.offset + offset), SEEK_DATA);
  if (first < 0) return errno == ENXIO ? std::optional(none) : std::nullopt;
  const off_t end = lseek(descriptor_, first, SEEK_HOLE);
  if (end <= first) return std::nullopt;
  const uint64_t begin = static_cast<uint64_t>(first) - window_.offset;
  if (begin >= window_.size) return none;
  return DataRun{begin, std::min(static_cast<uint64_t>(end) - window_.offset, window_.size) - begin};
}

// What is written here never changes a file's size, so that its content is all there is to sync.
int FileHandle::sync() {
  return syncContent(descriptor_);
}

bool FileHandle::isSyncedWith(const DeviceHandle& other) const {
  const auto* const file = dynamic_cast<const FileHandle*>(&other);
  struct stat own = {};
  struct stat others = {};
  if (file == nullptr || fstat(descriptor_, &own) != 0 || fstat(file->descriptor_, &others) != 0) return false;
  // The nodes of a disk and of its partitions have caches of their own.
  return S_ISREG(own.st_mode) && own.st_dev == others.st_dev && own.st_ino == others.st_ino;
}

int FileHandle::close() {
  if (descriptor_ < 0) {
    errno = EBADF;
    return -1;
  }
  const int result = ::close(std::exchange(descriptor_, -1));
  lock_.reset();
  return result;
}

}  // namespace vorlix
