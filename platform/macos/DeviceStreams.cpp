// SPDX-License-Identifier: Apache-2.0
#include "DeviceStreams.h"

#include <memory>
#include <utility>

#include "platform/posix/StreamCookie.h"

namespace vorlix {
namespace {

int readCookie(void* cookie, char* buffer, int count) {
  return static_cast<int>(static_cast<StreamCookie*>(cookie)->read(buffer, static_cast<size_t>(count)));
}

fpos_t seekCookie(void* cookie, fpos_t offset, int whence) {
  return static_cast<StreamCookie*>(cookie)->seek(offset, whence);
}

int closeCookie(void* cookie) {
  const std::unique_ptr<StreamCookie> self(static_cast<StreamCookie*>(cookie));
  return self->close();
}

}  // namespace

FILE* MacDeviceStreams::streamOver(std::unique_ptr<DeviceHandle> device) {
  auto cookie = std::make_unique<StreamCookie>(std::move(device));
  FILE* const stream = funopen(cookie.get(), readCookie, nullptr, seekCookie, closeCookie);
  if (stream != nullptr) static_cast<void>(cookie.release());
  return stream;
}

}  // namespace vorlix
