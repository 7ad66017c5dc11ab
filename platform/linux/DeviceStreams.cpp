// SPDX-License-Identifier: Apache-2.0
#include "DeviceStreams.h"

#include <memory>
#include <utility>

#include "platform/posix/StreamCookie.h"

namespace vorlix {
namespace {

ssize_t readCookie(void* cookie, char* buffer, size_t count) {
  return static_cast<StreamCookie*>(cookie)->read(buffer, count);
}

int seekCookie(void* cookie, off64_t* offset, int whence) {
  const int64_t target = static_cast<StreamCookie*>(cookie)->seek(*offset, whence);
  if (target < 0) return -1;
  *offset = target;
  return 0;
}

int closeCookie(void* cookie) {
  const std::unique_ptr<StreamCookie> self(static_cast<StreamCookie*>(cookie));
  return self->close();
}

}  // namespace

FILE* LinuxDeviceStreams::streamOver(std::unique_ptr<DeviceHandle> device) {
  auto cookie = std::make_unique<StreamCookie>(std::move(device));
  const cookie_io_functions_t functions = {readCookie, nullptr, seekCookie, closeCookie};
  FILE* const stream = fopencookie(cookie.get(), "rb", functions);
  if (stream != nullptr) static_cast<void>(cookie.release());
  return stream;
}

}  // namespace vorlix
