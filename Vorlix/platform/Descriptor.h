// SPDX-License-Identifier: Apache-2.0
/// @file
/// Ownership of a file descriptor.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vorlix {

/// Closes its descriptor at the end of its life, with `errno` left as it was.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      reset();
      number_ = std::exchange(other.number_, -1);
    }
    return *this;
  }

  explicit operator bool() const { return number_ >= 0; }
  int get() const { return number_; }
  int release() { return std::exchange(number_, -1); }

  void reset() {
    if (number_ < 0) return;
    const int reason = errno;
    ::close(std::exchange(number_, -1));
    errno = reason;
  }

 private:
  int number_ = -1;
};

/// Gives an open file that may be written to a number that no standard stream has: where a host has closed a stream,
/// its number goes to the next file that is opened, and what is printed would go into that.
/// @param descriptor  taken over; -1 for a file that could not be opened.
/// @return -1 with `errno` set on failure.
inline int aboveStandardStreams(int descriptor) {
  if (descriptor < 0 || descriptor > STDERR_FILENO) return descriptor;
  const Descriptor low(descriptor);
  return fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

}  // namespace vorlix
