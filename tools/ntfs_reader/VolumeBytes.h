// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <libbfio.h>

#include <cstdint>

namespace vorlix::ntfs {

/// The bytes of a volume, a part of an open device, as the library reads them. Nothing can be written.
class VolumeBytes {
 public:
  VolumeBytes(int device, uint64_t offset, uint64_t size);
  ~VolumeBytes();
  VolumeBytes(const VolumeBytes&) = delete;
  VolumeBytes& operator=(const VolumeBytes&) = delete;

  libbfio_handle_t* handle() const { return handle_; }

 private:
  struct Window;
  static int release(intptr_t** window, libbfio_error_t** error);
  static int copy(intptr_t** made, intptr_t* window, libbfio_error_t** error);
  static int open(intptr_t* window, int access, libbfio_error_t** error);
  static int close(intptr_t* window, libbfio_error_t** error);
  static ssize_t read(intptr_t* window, uint8_t* buffer, size_t count, libbfio_error_t** error);
  static ssize_t write(intptr_t* window, const uint8_t* buffer, size_t count, libbfio_error_t** error);
  static off64_t seek(intptr_t* window, off64_t offset, int whence, libbfio_error_t** error);
  static int exists(intptr_t* window, libbfio_error_t** error);
  static int sizeOf(intptr_t* window, size64_t* size, libbfio_error_t** error);

  libbfio_handle_t* handle_ = nullptr;
};

}  // namespace vorlix::ntfs
