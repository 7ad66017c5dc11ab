// SPDX-License-Identifier: Apache-2.0
/// @file
/// Ownership of a file descriptor.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vorlix {

/// Owns a descriptor: closes it when destroyed and keeps `errno` unchanged.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}  ///< takes it over; negative: none
  ~Descriptor() { reset(); }
  /// Leaves `other` without one.
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  /// Closes its own one first, and leaves `other` without one.
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      reset();
      number_ = std::exchange(other.number_, -1);
    }
    return *this;
  }

  explicit operator bool() const { return number_ >= 0; }  ///< whether there is one
  int get() const { return number_; }                      ///< the number, which stays owned; -1 without one
  int release() { return std::exchange(number_, -1); }     ///< gives the number away; it is not closed any more

  /// Closes it.
  void reset() {
    if (number_ < 0) return;
    const int reason = errno;
    ::close(std::exchange(number_, -1));
    errno = reason;
  }

 private:
  int number_ = -1;
};

/// Moves an open file to a descriptor above those of the standard streams. If a host has closed a standard stream, the
/// next file that is opened gets its number, and whatever the host prints would be written to that file.
/// @param descriptor  is taken over; -1 if the file could not be opened.
/// @return the new descriptor, or -1 with `errno` set.
inline int aboveStandardStreams(int descriptor) {
  if (descriptor < 0 || descriptor > STDERR_FILENO) return descriptor;
  const Descriptor low(descriptor);
  return fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

}  // namespace vorlix
