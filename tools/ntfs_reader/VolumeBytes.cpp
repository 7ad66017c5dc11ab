// SPDX-License-Identifier: Apache-2.0
#include "VolumeBytes.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "Failure.h"

namespace vorlix::ntfs {

struct VolumeBytes::Window {
  int device;
  uint64_t offset;
  uint64_t size;
  uint64_t position = 0;

  static Window& of(intptr_t* window) { return *reinterpret_cast<Window*>(window); }
};

int VolumeBytes::release(intptr_t** window, libbfio_error_t**) {
  delete &Window::of(*window);
  *window = nullptr;
  return 1;
}

int VolumeBytes::copy(intptr_t** made, intptr_t* window, libbfio_error_t**) {
  *made = reinterpret_cast<intptr_t*>(std::make_unique<Window>(Window::of(window)).release());
  return 1;
}

int VolumeBytes::open(intptr_t*, int access, libbfio_error_t**) {
  return (access & LIBBFIO_ACCESS_FLAG_WRITE) == 0 ? 1 : -1;
}

int VolumeBytes::close(intptr_t*, libbfio_error_t**) {
  return 0;
}

ssize_t VolumeBytes::read(intptr_t* window, uint8_t* buffer, size_t count, libbfio_error_t**) {
  Window& bytes = Window::of(window);
  if (bytes.position >= bytes.size) return 0;
  count = static_cast<size_t>(std::min<uint64_t>(count, bytes.size - bytes.position));
  ssize_t got = -1;
  do got = pread(bytes.device, buffer, count, static_cast<off_t>(bytes.offset + bytes.position));
  while (got < 0 && errno == EINTR);
  if (got > 0) bytes.position += static_cast<uint64_t>(got);
  return got;
}

ssize_t VolumeBytes::write(intptr_t*, const uint8_t*, size_t, libbfio_error_t**) {
  return -1;
}

off64_t VolumeBytes::seek(intptr_t* window, off64_t offset, int whence, libbfio_error_t**) {
  Window& bytes = Window::of(window);
  const uint64_t base = whence == SEEK_CUR ? bytes.position : whence == SEEK_END ? bytes.size : 0;
  off64_t place = 0;
  if (__builtin_add_overflow(static_cast<off64_t>(base), offset, &place) || place < 0) return -1;
  bytes.position = static_cast<uint64_t>(place);
  return place;
}

int VolumeBytes::exists(intptr_t*, libbfio_error_t**) {
  return 1;
}

int VolumeBytes::sizeOf(intptr_t* window, size64_t* size, libbfio_error_t**) {
  *size = Window::of(window).size;
  return 1;
}

VolumeBytes::VolumeBytes(int device, uint64_t offset, uint64_t size) {
  auto window = std::make_unique<Window>(Window{device, offset, size});
  constexpr uint8_t kFlags = LIBBFIO_FLAG_IO_HANDLE_MANAGED | LIBBFIO_FLAG_IO_HANDLE_CLONE_BY_FUNCTION;
  libbfio_error_t* error = nullptr;
  const int made = libbfio_handle_initialize(&handle_, reinterpret_cast<intptr_t*>(window.get()), release, copy, open,
                                             close, read, write, seek, exists, exists, sizeOf, kFlags, &error);
  if (error != nullptr) libbfio_error_free(&error);
  if (made != 1) throw Failure("not enough memory");
  static_cast<void>(window.release());  // the handle owns it
}

VolumeBytes::~VolumeBytes() {
  libbfio_handle_free(&handle_, nullptr);
}

}  // namespace vorlix::ntfs
