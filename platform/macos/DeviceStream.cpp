// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/DeviceStream.h>

#include <cerrno>
#include <utility>

namespace vorlix {
namespace {

struct Cookie {
  std::unique_ptr<DeviceHandle> device;
  uint64_t position = 0;
};

int readCookie(void* cookie, char* buffer, int count) {
  auto& self = *static_cast<Cookie*>(cookie);
  const ssize_t done = self.device->readAt(buffer, static_cast<size_t>(count), self.position);
  if (done > 0) self.position += static_cast<uint64_t>(done);
  return static_cast<int>(done);
}

fpos_t seekCookie(void* cookie, fpos_t offset, int whence) {
  auto& self = *static_cast<Cookie*>(cookie);
  int64_t base = 0;
  if (whence == SEEK_CUR) base = static_cast<int64_t>(self.position);
  if (whence == SEEK_END) base = static_cast<int64_t>(self.device->size().value_or(0));
  fpos_t target = 0;
  if (__builtin_add_overflow(base, offset, &target) || target < 0) {
    errno = EINVAL;
    return -1;
  }
  self.position = static_cast<uint64_t>(target);
  return target;
}

int closeCookie(void* cookie) {
  const std::unique_ptr<Cookie> self(static_cast<Cookie*>(cookie));
  return self->device->close();
}

}  // namespace

FILE* streamOver(std::unique_ptr<DeviceHandle> device) {
  auto cookie = std::make_unique<Cookie>(Cookie{std::move(device)});
  FILE* const stream = funopen(cookie.get(), readCookie, nullptr, seekCookie, closeCookie);
  if (stream != nullptr) static_cast<void>(cookie.release());
  return stream;
}

}  // namespace vorlix
