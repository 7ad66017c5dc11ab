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

/// Closes a stream when its owner is destroyed.
struct StreamCloser {
  void operator()(FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<FILE, StreamCloser>;

/// Opens a device or a file for reading with the ports in use. Null with `errno` set on failure.
Stream openDeviceForReading(const char* path);

/// Read or write exactly `count` bytes. @return false with `errno` set on failure; if the device only ends too early,
/// `errno` is EIO for a read and ENOSPC for a write.
bool readWhole(DeviceHandle& device, void* buffer, size_t count, uint64_t offset);
bool writeWhole(DeviceHandle& device, const void* bytes, size_t count, uint64_t offset);

/// Keep a stream or device open until the process ends, reachable and counted, because hosts rely on that after some
/// calls. Null is ignored.
void keepOpen(Stream stream);
void keepOpen(std::unique_ptr<DeviceHandle> device);

/// Returns how many streams and devices are kept open.
size_t keptOpenCount();

/// Closes all that are kept open, for tests with many cases in one process.
void closeKeptOpen();

}  // namespace vorlix
