// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/DeviceFile.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vorlix::tool {

using ByteVector = std::vector<uint8_t>;

/// The whole of a regular file of at most `limit` bytes. Throws Failure.
ByteVector readFile(const std::string& path, size_t limit);

/// The same of an open file; `path` is its name in messages.
ByteVector readWhole(int descriptor, const std::string& path, size_t limit);

/// Writes the whole content of an empty file, brings it to the medium and compares what is read back. Throws Failure,
/// which says `state`.
void writeAndReadBack(int descriptor, const std::string& path, const ByteVector& bytes, const std::string& state);

/// Exactly `count` bytes of a device at `offset`. Throws Failure.
ByteVector readDevice(const std::string& device, uint64_t offset, size_t count);

/// The same through an open device; `device` is its name in messages.
ByteVector readDevice(DeviceHandle& handle, const std::string& device, uint64_t offset, size_t count);

/// Rows of 16 bytes that differ between two texts of bytes of one length, old above new. `base` is added to the
/// offsets.
std::string differenceText(const ByteVector& before, const ByteVector& after, uint64_t base);

}  // namespace vorlix::tool
