// SPDX-License-Identifier: Apache-2.0
/// @file
/// Numbers as disks store them: the lowest byte first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace vorlix {

/// Reads a number of at most eight bytes.
constexpr uint64_t littleEndian(const uint8_t* bytes, size_t count) {
  uint64_t value = 0;
  for (size_t i = count; i > 0; --i) value = value << 8 | bytes[i - 1];
  return value;
}

/// Reads a number at `offset` of a range of bytes that is long enough.
template <typename Bytes>
constexpr uint64_t littleEndian(const Bytes& bytes, size_t offset, size_t count) {
  return littleEndian(std::data(bytes) + offset, count);
}

/// Returns the number in two bytes.
constexpr uint16_t littleEndian16(const uint8_t* bytes) {
  return static_cast<uint16_t>(littleEndian(bytes, 2));
}

/// Returns the number in four bytes.
constexpr uint32_t littleEndian32(const uint8_t* bytes) {
  return static_cast<uint32_t>(littleEndian(bytes, 4));
}

/// Writes the lowest `count` bytes of a number, at most eight.
constexpr void putLittleEndian(uint8_t* bytes, size_t count, uint64_t value) {
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(value >> 8 * i);
}

}  // namespace vorlix
