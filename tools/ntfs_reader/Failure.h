// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <libfsntfs.h>

#include <stdexcept>
#include <string>

namespace vorlix::ntfs {

/// Something cannot be read; what() is the reason as users see it.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// An error of the library, freed when it goes out of scope.
class LibraryError {
 public:
  LibraryError() = default;
  ~LibraryError();
  LibraryError(const LibraryError&) = delete;
  LibraryError& operator=(const LibraryError&) = delete;

  /// Where a function of the library puts the error. An earlier one is freed.
  libfsntfs_error_t** place();

 private:
  libfsntfs_error_t* error_ = nullptr;
};

}  // namespace vorlix::ntfs
