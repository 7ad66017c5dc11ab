// SPDX-License-Identifier: Apache-2.0
//
// Disk structures, assembled byte by byte without the library's own encoders.
#pragma once

#include <Vorlix/QDSDiskFunctions.h>
#include "library/QDSDiskFunctions/OpenDevices.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <vector>

namespace vorlix::test {

using ByteVector = std::vector<uint8_t>;
using GUIDBytes = std::array<uint8_t, 16>;

// Type GUIDs as stored on disk: the first group of the text as four bytes in reverse, the next two groups as two bytes
// each in reverse, the rest in text order.
constexpr GUIDBytes kUnusedType = {};
constexpr GUIDBytes kBasicDataType = {0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44,     // EBD0A0A2-B9E5-4433-
                                      0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7};    // 87C0-68B6B72699C7
constexpr GUIDBytes kHFSType = {0x00, 0x53, 0x46, 0x48, 0x00, 0x00, 0xAA, 0x11,           // 48465300-0000-11AA-
                                0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC};          // AA11-00306543ECAC
constexpr GUIDBytes kAPFSType = {0xEF, 0x57, 0x34, 0x7C, 0x00, 0x00, 0xAA, 0x11,          // 7C3457EF-0000-11AA-
                                 0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC};         // AA11-00306543ECAC
constexpr GUIDBytes kAppleRAIDType = {0x44, 0x49, 0x41, 0x52, 0x00, 0x00, 0xAA, 0x11,     // 52414944-0000-11AA-
                                      0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC};    // AA11-00306543ECAC
constexpr GUIDBytes kAppleBootType = {0x74, 0x6F, 0x6F, 0x42, 0x00, 0x00, 0xAA, 0x11,     // 426F6F74-0000-11AA-
                                      0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC};    // AA11-00306543ECAC
constexpr GUIDBytes kEFISystemType = {0x28, 0x73, 0x2A, 0xC1, 0x1F, 0xF8, 0xD2, 0x11,     // C12A7328-F81F-11D2-
                                      0xBA, 0x4B, 0x00, 0xA0, 0xC9, 0x3E, 0xC9, 0x3B};    // BA4B-00A0C93EC93B
constexpr GUIDBytes kLinuxLVMType = {0x79, 0xD3, 0xD6, 0xE6, 0x07, 0xF5, 0xC2, 0x44,      // E6D6D379-F507-44C2-
                                     0xA2, 0x3C, 0x23, 0x8F, 0x2A, 0x3D, 0xF9, 0x28};     // A23C-238F2A3DF928
constexpr GUIDBytes kCoreStorageType = {0x72, 0x6F, 0x74, 0x53, 0x67, 0x61, 0xAA, 0x11,   // 53746F72-6167-11AA-
                                        0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC};  // AA11-00306543ECAC
constexpr GUIDBytes kAppleUFSType = {0x00, 0x53, 0x46, 0x55, 0x00, 0x00, 0xAA, 0x11,      // 55465300-0000-11AA-
                                     0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC};     // AA11-00306543ECAC
/// A type that is in no table: 33221100-5544-7766-8899-AABBCCDDEEFF.
constexpr GUIDBytes kUnknownType = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                    0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};

inline void put(ByteVector& to, size_t offset, const ByteVector& bytes) {
  if (to.size() < offset + bytes.size()) to.resize(offset + bytes.size());
  std::copy(bytes.begin(), bytes.end(), to.begin() + static_cast<std::ptrdiff_t>(offset));
}

inline void putLittleEndian(ByteVector& to, size_t offset, size_t size, uint64_t value) {
  if (to.size() < offset + size) to.resize(offset + size);
  for (size_t i = 0; i < size; ++i) to[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

inline ByteVector joined(const std::vector<ByteVector>& parts) {
  ByteVector result;
  for (const ByteVector& part : parts) result.insert(result.end(), part.begin(), part.end());
  return result;
}

/// Returns the 128 bytes of a GPT entry. Its unique GUID is 16 times 0xD1, its attributes are 0x8877665544332211, its
/// name is 72 times 'n'.
inline ByteVector entryBytes(const GUIDBytes& type, uint64_t first, uint64_t last) {
  ByteVector entry(type.begin(), type.end());
  entry.resize(32, 0xD1);
  putLittleEndian(entry, 32, 8, first);
  putLittleEndian(entry, 40, 8, last);
  putLittleEndian(entry, 48, 8, 0x8877665544332211);
  entry.resize(128, 'n');
  return entry;
}

/// Returns the 128 bytes of an entry whose type says unused but whose other fields are not empty.
inline ByteVector unusedEntryBytes() {
  return entryBytes(kUnusedType, 5000, 6000);
}

/// Returns the 512 bytes of a GPT header with the fields that the tests need.
inline ByteVector headerBytes(uint32_t entryCount = 128, uint64_t entryLBA = 2, uint64_t lastUsableLBA = 2097118) {
  ByteVector header = {'E', 'F', 'I', ' ', 'P', 'A', 'R', 'T', 0x00, 0x00, 0x01, 0x00, 92, 0, 0, 0};
  header.resize(512);
  putLittleEndian(header, 24, 8, 1);  // this header's LBA
  putLittleEndian(header, 40, 8, 34);
  putLittleEndian(header, 48, 8, lastUsableLBA);
  putLittleEndian(header, 72, 8, entryLBA);
  putLittleEndian(header, 80, 4, entryCount);
  putLittleEndian(header, 84, 4, 128);
  return header;
}

/// Returns a stream that is positioned at the first byte.
inline Stream streamOf(const ByteVector& bytes) {
  Stream stream(std::tmpfile());
  if (!stream || std::fwrite(bytes.data(), 1, bytes.size(), stream.get()) != bytes.size()) {
    throw std::runtime_error("no temporary stream");
  }
  std::rewind(stream.get());
  return stream;
}

/// Returns the ten fields of a slot in the order of the record.
inline std::vector<uint32_t> fields(const MBRPartitionEntry& slot) {
  return {slot.flag,     slot.start_head, slot.start_sector, slot.start_track, slot.type,
          slot.end_head, slot.end_sector, slot.end_track,    slot.lba,         slot.size};
}
inline const std::vector<uint32_t> kEmptySlot(10, 0);

}  // namespace vorlix::test
