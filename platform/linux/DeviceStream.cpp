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

ssize_t readCookie(void* cookie, char* buffer, size_t count) {
  auto& self = *static_cast<Cookie*>(cookie);
  const ssize_t done = self.device->readAt(buffer, count, self.position);
  if (done > 0) self.position += static_cast<uint64_t>(done);
  return done;
}

int seekCookie(void* cookie, off64_t* offset, int whence) {
  auto& self = *static_cast<Cookie*>(cookie);
  int64_t base = 0;
  if (whence == SEEK_CUR) base = static_cast<int64_t>(self.position);
  if (whence == SEEK_END) base = static_cast<int64_t>(self.device->size().value_or(0));
  int64_t target = 0;
  if (__builtin_add_overflow(base, *offset, &target) || target < 0) {
    errno = EINVAL;
    return -1;
  }
  self.position = static_cast<uint64_t>(target);
  *offset = target;
  return 0;
}

int closeCookie(void* cookie) {
  const std::unique_ptr<Cookie> self(static_cast<Cookie*>(cookie));
  return self->device->close();
}

}  // namespace

FILE* streamOver(std::unique_ptr<DeviceHandle> device) {
  auto cookie = std::make_unique<Cookie>(Cookie{std::move(device)});
  const cookie_io_functions_t functions = {readCookie, nullptr, seekCookie, closeCookie};
  FILE* const stream = fopencookie(cookie.get(), "rb", functions);
  if (stream != nullptr) static_cast<void>(cookie.release());
  return stream;
}

}  // namespace vorlix
