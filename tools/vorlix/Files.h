// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/DeviceFile.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Json.h"

namespace vorlix::tool {

using ByteVector = std::vector<uint8_t>;

/// Reads the whole of a regular file of at most `limit` bytes. Throws Failure.
ByteVector readFile(const std::string& path, size_t limit);

/// Does the same with an open file; `path` is its name in messages.
ByteVector readWhole(int descriptor, const std::string& path, size_t limit);

/// Writes the whole content of an empty file, syncs it, reads it back and compares. Throws Failure with `state`.
void writeAndReadBack(int descriptor, const std::string& path, const ByteVector& bytes, const std::string& state);

/// Reads exactly `count` bytes of a device at byte `offset`. Throws Failure.
ByteVector readDevice(const std::string& device, uint64_t offset, size_t count);

/// Does the same with an open device; `device` is its name in messages.
ByteVector readDevice(DeviceHandle& handle, const std::string& device, uint64_t offset, size_t count);

/// Returns a hexadecimal dump of the rows of 16 bytes that differ between two byte vectors of the same length, the old
/// row above the new one. `base` is added to the offsets.
std::string differenceText(const ByteVector& before, const ByteVector& after, uint64_t base);

/// The same as an array of {"offset", "before", "after"}: rows of at most 16 bytes, in hexadecimal. A side that has
/// ended is null.
Json differenceJson(const ByteVector& before, const ByteVector& after, uint64_t base);

}  // namespace vorlix::tool
