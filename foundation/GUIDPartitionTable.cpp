// SPDX-License-Identifier: Apache-2.0
#include "GUIDPartitionTable.h"

#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <vector>

namespace vorlix {
namespace {

constexpr size_t kSmallestHeader = 92;
constexpr size_t kHeaderSizeOffset = 12;
constexpr size_t kChecksumOffset = 16;
constexpr size_t kOwnLBAOffset = 24;

constexpr size_t kSlotsOffset = 446;
constexpr size_t kSlotSize = 16;
constexpr size_t kTypeOffset = 4;
constexpr size_t kMBRSignatureOffset = 510;

// Table k has the effect of a byte that k more bytes follow, so that a word of four bytes takes one step.
using ChecksumTables = std::array<std::array<uint32_t, 256>, 4>;

constexpr ChecksumTables makeTables() {
  constexpr uint32_t kReflectedPolynomial = 0xEDB88320;  // 0x04C11DB7 with its bits reversed
  ChecksumTables tables = {};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) value = (value & 1) != 0 ? value >> 1 ^ kReflectedPolynomial : value >> 1;
    tables[0][i] = value;
  }
  for (size_t k = 1; k < tables.size(); ++k) {
    for (size_t i = 0; i < 256; ++i) tables[k][i] = tables[k - 1][i] >> 8 ^ tables[0][tables[k - 1][i] & 0xFF];
  }
  return tables;
}

bool hasMBRSignature(std::span<const uint8_t> sector0) {
  return sector0.size() >= kMBRSignatureOffset + 2 && littleEndian(sector0, kMBRSignatureOffset, 2) == 0xAA55;
}

}  // namespace

uint32_t crc32(std::span<const uint8_t> bytes, uint32_t before) {
  static constexpr ChecksumTables kTables = makeTables();
  uint32_t value = ~before;
  for (; bytes.size() >= 4; bytes = bytes.subspan(4)) {
    value ^= bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
    value = kTables[3][value & 0xFF] ^ kTables[2][value >> 8 & 0xFF] ^ kTables[1][value >> 16 & 0xFF] ^
            kTables[0][value >> 24];
  }
  for (const uint8_t byte : bytes) value = value >> 8 ^ kTables[0][(value ^ byte) & 0xFF];
  return ~value;
}

bool hasGPTSignature(std::span<const uint8_t> block) {
  return block.size() >= 8 && std::memcmp(block.data(), "EFI PART", 8) == 0;
}

bool hasRightChecksum(std::span<const uint8_t> block) {
  if (block.size() < kSmallestHeader) return false;
  const uint64_t size = littleEndian(block, kHeaderSizeOffset, 4);
  if (size < kSmallestHeader || size > block.size()) return false;
  std::vector<uint8_t> header(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(size));
  std::fill_n(header.begin() + kChecksumOffset, 4, uint8_t{0});  // the field counts as zero in the checksum
  return crc32(header) == littleEndian(block, kChecksumOffset, 4);
}

bool isSoundGPTHeader(std::span<const uint8_t> block, uint64_t lba) {
  return hasGPTSignature(block) && hasRightChecksum(block) && littleEndian(block, kOwnLBAOffset, 8) == lba;
}

bool isProtected(std::span<const uint8_t> sector0) {
  constexpr uint8_t kProtectiveType = 0xEE;
  if (!hasMBRSignature(sector0)) return false;
  for (size_t slot = 0; slot < 4; ++slot) {
    if (sector0[kSlotsOffset + slot * kSlotSize + kTypeOffset] == kProtectiveType) return true;
  }
  return false;
}

bool leavesDiskToGPT(std::span<const uint8_t> sector0) {
  return !hasMBRSignature(sector0) || isProtected(sector0);
}

}  // namespace vorlix
