// SPDX-License-Identifier: Apache-2.0
//
// Sector 0, GPT header and GPT entries as bytes: decoding and encoding without a stream, so that they can be tested and
// fuzzed by themselves. Layouts: UEFI Specification 2.10, sections 5.2 and 5.3.
//
// Decoders take the bytes that a reader really got. A field that lies wholly inside them is taken over; one that does
// not keeps the value it had.
#pragma once

#include <Vorlix/QDSDiskFunctions.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace vorlix {

using Bytes = std::span<const uint8_t>;

constexpr size_t kSectorSize = 512;  // bytes of sector 0 and of a GPT header that are looked at, on any block size
constexpr size_t kBootCodeSize = 446;
constexpr size_t kSlotSize = 16;
constexpr size_t kSlotCount = 4;
constexpr size_t kGPTEntrySize = 128;
constexpr uint16_t kMBRSignature = 0xAA55;
constexpr uint64_t kGPTSignature = 0x5452415020494645;  // "EFI PART"
/// The most entries that are read from a disk, whatever a damaged header claims: 512 times the usual table.
constexpr uint32_t kMaximumEntries = 65536;

constexpr uint8_t kActiveFlag = 0x80;
constexpr uint8_t kProtectiveType = 0xEE;

constexpr const char* kUnusedGUID = "00000000-0000-0000-0000-000000000000";
constexpr const char* kEFISystemGUID = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";

struct CHS {
  int32_t cylinder;
  int32_t head;
  int32_t sector;
};

/// The rule of calculate_chs(), signed values included.
CHS chsOf(int32_t lba);

/// Decodes sector 0. `active`, if not null, gets the number of the last slot whose flag is exactly 0x80.
void decodeMBR(Bytes sector, PartitionTable& table, uint32_t* active);

/// Encodes four slots as the 64 bytes that stand at offset 446 of sector 0.
std::array<uint8_t, kSlotSize * kSlotCount> encodeSlots(const MBRPartitionEntry (&parts)[kSlotCount]);

/// Decodes the 512 bytes of a GPT header.
void decodeGPTHeader(Bytes sector, GPTHeader& header);

/// Byte offset of the first entry; the largest value where the header's LBA lies beyond any offset.
uint64_t entriesOffset(const GPTHeader& header, uint64_t blockSize);

/// The header's count, held to kMaximumEntries.
uint32_t boundedEntryCount(const GPTHeader& header);

/// Decodes one entry; `guid_text` follows from the type GUID. An unused entry gets a zero `unique_guid` and keeps the
/// rest of its fields. Returns whether the entry is in use.
bool decodeGPTEntry(Bytes bytes, GPTEntry& entry);

/// Whether a GPT entry is in use.
bool isUsed(const GPTEntry& entry);

/// The MBR slot that mirrors a used GPT entry.
MBRPartitionEntry hybridSlot(const GPTEntry& entry, bool active);

/// The MBR slot of the GPT entry `number` (from 1): empty for an unused one, else the one that mirrors it, active if
/// `active` is that number.
MBRPartitionEntry slotFor(const GPTEntry& entry, uint32_t number, uint32_t active);

/// The MBR that the first four entries of a GPT ask for. Slots of entries that are not there are empty.
PartitionTable hybridTable(std::span<const GPTEntry> entries, uint32_t active);

/// Turns a hybrid MBR into a standard guard MBR; slot 1 keeps its type and first LBA.
void makeGuard(PartitionTable& table, uint64_t lastUsableLBA);

/// The fields of a slot, in the order in which ComparePartitionTables() looks at them: LBA, size, start head, sector
/// and cylinder, end head, sector and cylinder, type, flag.
std::array<uint32_t, 10> fieldsOf(const MBRPartitionEntry& slot);

/// Whether two slots have the same bytes on disk. Cylinder, head and sector of an LBA of 2^31 or more lose bits there.
bool sameSlot(const MBRPartitionEntry& one, const MBRPartitionEntry& other);

}  // namespace vorlix
