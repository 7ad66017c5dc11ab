// SPDX-License-Identifier: Apache-2.0
/// @file
/// Decodes and encodes sector 0, GPT headers and GPT entries as bytes. No stream is needed, so this code can be tested
/// and fuzzed separately. Layouts: UEFI Specification 2.10, sections 5.2 and 5.3.
///
/// Decoders take the bytes that were read, which may be too few. A field that is not completely inside them keeps its
/// value.
#pragma once

#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/foundation/Export.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace vorlix {

/// Bytes of a disk, as far as they were read.
using Bytes = std::span<const uint8_t>;

constexpr size_t kSectorSize = 512;         ///< bytes of sector 0 and of a GPT header that are used, for any block size
constexpr size_t kBootCodeSize = 446;       ///< bytes before the first slot: boot code, disk signature, two more
constexpr size_t kSlotSize = 16;            ///< bytes of a slot on disk
constexpr size_t kSlotCount = 4;            ///< slots of an MBR
constexpr size_t kGPTEntrySize = 128;       ///< bytes of a GPT entry, whatever the header claims
constexpr uint16_t kMBRSignature = 0xAA55;  ///< 55 AA in bytes 510 and 511 of sector 0
constexpr uint64_t kGPTSignature = 0x5452415020494645;  ///< "EFI PART"
/// The largest number of entries that is read from a disk, whatever a damaged header claims: 512 times the usual 128.
constexpr uint32_t kMaximumEntries = 65536;

constexpr uint8_t kActiveFlag = 0x80;      ///< of the slot that boot code starts
constexpr uint8_t kProtectiveType = 0xEE;  ///< of the slot that covers the GPT

/// Type GUID of an unused entry, as text.
constexpr const char* kUnusedGUID = "00000000-0000-0000-0000-000000000000";
/// Type GUID of an EFI System Partition, as text.
constexpr const char* kEFISystemGUID = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";

/// Cylinder, head and sector of an LBA. All are at or below zero (the sector at or below 1) for a negative one.
struct CHS {
  int32_t cylinder;  ///< limited to 1023
  int32_t head;      ///< 0 to 254
  int32_t sector;    ///< 1 to 63
};

/// Returns the values of calculate_chs() with their signs.
VORLIX_EXPORT CHS chsOf(int32_t lba);

/// Decodes sector 0. If `active` is not null, it receives the number of the last slot whose flag is exactly 0x80; it is
/// unchanged if there is none.
VORLIX_EXPORT void decodeMBR(Bytes sector, PartitionTable& table, uint32_t* active);

/// Encodes four slots as the 64 bytes at offset 446 of sector 0.
VORLIX_EXPORT std::array<uint8_t, kSlotSize * kSlotCount> encodeSlots(const MBRPartitionEntry (&parts)[kSlotCount]);

/// Decodes the 512 bytes of a GPT header.
VORLIX_EXPORT void decodeGPTHeader(Bytes sector, GPTHeader& header);

/// Returns the byte offset of the first entry, or the largest value if the offset does not fit 64 bits.
VORLIX_EXPORT uint64_t entriesOffset(const GPTHeader& header, uint64_t blockSize);

/// Returns the header's number of entries, limited to kMaximumEntries.
VORLIX_EXPORT uint32_t boundedEntryCount(const GPTHeader& header);

/// Decodes one entry and sets `guid_text` from the type GUID. In an unused entry, `unique_guid` becomes zero and the
/// other fields keep their values. Returns whether the entry is in use.
VORLIX_EXPORT bool decodeGPTEntry(Bytes bytes, GPTEntry& entry);

/// Returns whether a GPT entry is in use.
VORLIX_EXPORT bool isUsed(const GPTEntry& entry);

/// Returns the MBR slot that mirrors a used GPT entry.
VORLIX_EXPORT MBRPartitionEntry hybridSlot(const GPTEntry& entry, bool active);

/// Returns the MBR slot of the GPT entry `number` (from 1). The slot is empty if the entry is unused. Otherwise it
/// mirrors the entry, and is active if `active` is that number.
VORLIX_EXPORT MBRPartitionEntry slotFor(const GPTEntry& entry, uint32_t number, uint32_t active);

/// Returns the MBR that the first four entries of a GPT require. Slots of missing entries are empty.
VORLIX_EXPORT PartitionTable hybridTable(std::span<const GPTEntry> entries, uint32_t active);

/// Turns a hybrid MBR into a standard guard MBR; slot 1 keeps its type and first LBA.
VORLIX_EXPORT void makeGuard(PartitionTable& table, uint64_t lastUsableLBA);

/// Returns the fields of a slot in the order in which ComparePartitionTables() compares them: LBA, size, start head,
/// sector and cylinder, end head, sector and cylinder, type, flag.
VORLIX_EXPORT std::array<uint32_t, 10> fieldsOf(const MBRPartitionEntry& slot);

/// Returns whether two slots have the same bytes on disk. There the cylinder, head and sector of an LBA of 2^31 or more
/// lose bits, so slots with different fields can be the same.
VORLIX_EXPORT bool sameSlot(const MBRPartitionEntry& one, const MBRPartitionEntry& other);

}  // namespace vorlix
