// SPDX-License-Identifier: Apache-2.0
#include "OpenDevices.h"

#include <Vorlix/platform/DeviceStreams.h>
#include <Vorlix/platform/Platform.h>

#include <cerrno>
#include <mutex>
#include <utility>
#include <vector>

namespace vorlix {
namespace {

// Enough to read sector 0, the header and the usual 128 entries of a disk with blocks of 4096 bytes at once.
constexpr size_t kStreamBufferSize = size_t{32} * 1024;

struct KeptOpen {
  std::mutex mutex;
  std::vector<Stream> streams;
  std::vector<std::unique_ptr<DeviceHandle>> devices;
};

KeptOpen& kept() {
  // Never destroyed: the streams and devices stay open until the process ends.
  static auto* const instance = new KeptOpen;
  return *instance;
}

}  // namespace

Stream openDeviceForReading(const char* path) {
  std::unique_ptr<DeviceHandle> device = platform().deviceFile->open(path, DeviceAccess::readOnly, DeviceLock::none);
  if (!device) return nullptr;
  Stream stream(platform().deviceStreams->streamOver(std::move(device)));
  if (stream) std::setvbuf(stream.get(), nullptr, _IOFBF, kStreamBufferSize);
  return stream;
}

// An incomplete transfer sets errno only if it failed. It is cleared first, so that it has no older reason.
bool readWhole(DeviceHandle& device, void* buffer, size_t count, uint64_t offset) {
  errno = 0;
  if (device.readAt(buffer, count, offset) == static_cast<ssize_t>(count)) return true;
  if (errno == 0) errno = EIO;
  return false;
}

bool writeWhole(DeviceHandle& device, const void* bytes, size_t count, uint64_t offset) {
  errno = 0;
  if (device.writeAt(bytes, count, offset) == static_cast<ssize_t>(count)) return true;
  if (errno == 0) errno = ENOSPC;
  return false;
}

void keepOpen(Stream stream) {
  if (!stream) return;
  const std::lock_guard lock(kept().mutex);
  kept().streams.push_back(std::move(stream));
}

void keepOpen(std::unique_ptr<DeviceHandle> device) {
  if (!device) return;
  const std::lock_guard lock(kept().mutex);
  kept().devices.push_back(std::move(device));
}

size_t keptOpenCount() {
  const std::lock_guard lock(kept().mutex);
  return kept().streams.size() + kept().devices.size();
}

void closeKeptOpen() {
  const std::lock_guard lock(kept().mutex);
  kept().streams.clear();
  kept().devices.clear();
}

}  // namespace vorlix
