// SPDX-License-Identifier: Apache-2.0
//
// Devices as the flat functions use them.
#pragma once

#include <Vorlix/platform/DeviceFile.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace vorlix {

/// Closes a stream at the end of its owner's life.
struct StreamCloser {
  void operator()(FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<FILE, StreamCloser>;

/// Opens a device (or a file) for reading through the platform in force. Null with `errno` set on failure.
Stream openDeviceForReading(const char* path);

/// Reads or writes exactly `count` bytes. False with `errno` set, also where the device only ends too soon: EIO for a
/// read, ENOSPC for a write.
bool readWhole(DeviceHandle& device, void* buffer, size_t count, uint64_t offset);
bool writeWhole(DeviceHandle& device, const void* bytes, size_t count, uint64_t offset);

/// Where hosts rely on a stream or a device staying open after a call, it is given to keepOpen(): it then lives until
/// the process ends, reachable and counted. Null is ignored.
void keepOpen(Stream stream);
void keepOpen(std::unique_ptr<DeviceHandle> device);

/// How many streams and devices have been given to keepOpen().
size_t keptOpenCount();

/// Closes what was kept open, for tests that run many cases in one process.
void closeKeptOpen();

}  // namespace vorlix
