// SPDX-License-Identifier: Apache-2.0
//
// A device behind a C stream. Systems call it in different ways, but it does the same on all of them.
#pragma once

#include <Vorlix/platform/DeviceFile.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <memory>
#include <utility>

namespace vorlix {

class StreamCookie {
 public:
  explicit StreamCookie(std::unique_ptr<DeviceHandle> device) : device_(std::move(device)) {}

  /// Reads like DeviceHandle::readAt(). An exception, which the C library could not pass on, becomes EIO.
  ssize_t read(char* buffer, size_t count) try {
    const ssize_t done = device_->readAt(buffer, count, position_);
    if (done > 0) position_ += static_cast<uint64_t>(done);
    return done;
  } catch (const std::exception&) {
    errno = EIO;
    return -1;
  }

  /// @return the new position, or -1 with `errno` set to EINVAL if it would be invalid.
  int64_t seek(int64_t offset, int whence) {
    int64_t base = 0;
    if (whence == SEEK_CUR) base = static_cast<int64_t>(position_);
    if (whence == SEEK_END) base = static_cast<int64_t>(device_->size().value_or(0));
    int64_t target = 0;
    if (__builtin_add_overflow(base, offset, &target) || target < 0) {
      errno = EINVAL;
      return -1;
    }
    position_ = static_cast<uint64_t>(target);
    return target;
  }

  int close() { return device_->close(); }

 private:
  std::unique_ptr<DeviceHandle> device_;
  uint64_t position_ = 0;
};

}  // namespace vorlix
