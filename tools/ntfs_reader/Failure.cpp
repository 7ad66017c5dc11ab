// SPDX-License-Identifier: Apache-2.0
#include "Failure.h"

namespace vorlix::ntfs {

LibraryError::~LibraryError() {
  if (error_ != nullptr) libfsntfs_error_free(&error_);
}

libfsntfs_error_t** LibraryError::place() {
  if (error_ != nullptr) libfsntfs_error_free(&error_);
  error_ = nullptr;
  return &error_;
}

}  // namespace vorlix::ntfs
