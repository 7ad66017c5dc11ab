// SPDX-License-Identifier: Apache-2.0
//
// A disk with a sound GPT. It is assembled byte by byte, and its checksums are computed one bit at a time.
#pragma once

#include "tests/unit/support/DiskBytes.h"

namespace vorlix::test {

/// Computes the CRC one bit at a time from the polynomial, which is independent of the library's table.
inline uint32_t slowCRC(const ByteVector& bytes) {
  uint32_t value = 0xFFFFFFFF;
  for (const uint8_t byte : bytes) {
    value ^= byte;
    for (int bit = 0; bit < 8; ++bit) value = value >> 1 ^ ((value & 1) != 0 ? 0xEDB88320 : 0);
  }
  return ~value;
}

/// A disk of 128 KiB with two slices, and an MBR that only protects its GPT.
struct SoundGPT {
  static constexpr uint64_t kBlocks = 256;
  static constexpr uint64_t kLast = kBlocks - 1;
  static constexpr uint64_t kBackupEntries = kLast - 32;

  SoundGPT() : bytes(kBlocks * 512) {
    put(bytes, 446, {0x00, 0x00, 0x02, 0x00, 0xEE, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 0xFF, 0, 0, 0});
    put(bytes, 510, {0x55, 0xAA});
    setEntries({entryBytes(kEFISystemType, 40, 99), entryBytes(kBasicDataType, 100, 149)});
  }

  /// Writes both copies of the table without any error.
  void setEntries(const std::vector<ByteVector>& entries) {
    ByteVector table = joined(entries);
    table.resize(128 * 128);
    put(bytes, 2 * 512, table);
    put(bytes, kBackupEntries * 512, table);
    seal(1);
    seal(kLast);
  }

  /// Writes a header with correct checksums after `change` has modified it.
  template <typename Change>
  void seal(uint64_t lba, Change change, uint32_t count = 128) {
    const uint64_t entryLBA = lba == 1 ? 2 : kBackupEntries;
    ByteVector header = headerBytes(count, entryLBA, kBackupEntries - 1);
    putLittleEndian(header, 24, 8, lba);
    putLittleEndian(header, 32, 8, lba == 1 ? kLast : 1);
    const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(entryLBA * 512);
    putLittleEndian(header, 88, 4, slowCRC({from, from + 128 * 128}));
    change(header);
    putLittleEndian(header, 16, 4, 0);
    putLittleEndian(header, 16, 4, slowCRC({header.begin(), header.begin() + 92}));
    put(bytes, lba * 512, header);
  }
  void seal(uint64_t lba) {
    seal(lba, [](ByteVector&) {});
  }
  void sealBoth(size_t offset, size_t size, uint64_t value) {
    for (const uint64_t lba : {uint64_t{1}, kLast}) {
      seal(lba, [&](ByteVector& header) { putLittleEndian(header, offset, size, value); });
    }
  }
  void erase(uint64_t lba) { put(bytes, lba * 512, ByteVector(512)); }

  ByteVector bytes;
};

}  // namespace vorlix::test
