// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/PartitionRecords.h>

#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>

int32_t verbose_flag = 0;

const PartitionTypeMap partition_maps[10] = {
    {0x07, "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7"},  // Microsoft basic data
    {0xAF, "48465300-0000-11AA-AA11-00306543ECAC"},  // Apple HFS+
    {0xFF, "7C3457EF-0000-11AA-AA11-00306543ECAC"},  // Apple APFS
    {0x00, "00000000-0000-0000-0000-000000000000"},  // unused
    {0xAB, "52414944-0000-11AA-AA11-00306543ECAC"},  // Apple RAID
    {0xAB, "426F6F74-0000-11AA-AA11-00306543ECAC"},  // Apple Boot
    {0xEE, "C12A7328-F81F-11D2-BA4B-00A0C93EC93B"},  // EFI System
    {0x8E, "E6D6D379-F507-44C2-A23C-238F2A3DF928"},  // Linux LVM
    {0xAC, "53746F72-6167-11AA-AA11-00306543ECAC"},  // Apple Core Storage
    {0xA8, "55465300-0000-11AA-AA11-00306543ECAC"},  // Apple UFS
};

// One less than the table has: an Apple UFS partition has MBR type 0 unless a host sets this to 10.
int32_t number_of_partition_maps = 9;

char mkntfs[2048];
char ntfs3gpath[2048];
char ntfscatpath[2048];
char ntfsclonepath[1024];
char ntfscppath[1024];
char ntfsinfopath[1024];
char ntfsresizepath[1024];

namespace vorlix {

static_assert(sizeof(GPTHeader) == kSectorSize);
static_assert(offsetof(GPTHeader, partition_entry_lba) == 72);
static_assert(offsetof(GPTEntry, guid_text) == kGPTEntrySize);
static_assert(sizeof(GPTEntry) == kGPTEntrySize + 40);
static_assert(sizeof(PartitionTypeMap) == 44);

namespace {

template <typename Integer>
void takeInteger(Bytes bytes, size_t offset, Integer& field) {
  if (bytes.size() < offset + sizeof(Integer)) return;
  field = static_cast<Integer>(littleEndian(bytes, offset, sizeof(Integer)));
}

template <size_t size>
void takeBytes(Bytes bytes, size_t offset, uint8_t (&field)[size]) {
  if (bytes.size() < offset + size) return;
  std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), size, field);
}

// Sector and cylinder share two bytes. The first byte has the sector in bits 0-5 and bits 8-9 of the cylinder in bits
// 6-7; the second byte has bits 0-7 of the cylinder.
void takeSectorAndTrack(Bytes bytes, size_t offset, uint8_t& sector, uint16_t& track) {
  if (bytes.size() < offset + 2) return;
  uint16_t word = 0;
  takeInteger(bytes, offset, word);
  sector = static_cast<uint8_t>(word & 63);
  track = static_cast<uint16_t>(word >> 8 | (word & 0xC0) << 2);
}

// The sector is not masked. A sector above 63, which an LBA of 2^31 or more can have, overwrites bits of the cylinder.
void putSectorAndTrack(uint8_t* to, uint8_t sector, uint16_t track) {
  to[0] = static_cast<uint8_t>(sector | (track >> 2 & 0xC0));
  to[1] = static_cast<uint8_t>(track & 0xFF);
}

uint8_t mbrTypeOf(const char* guidText) {
  const auto rows = std::clamp<std::ptrdiff_t>(number_of_partition_maps, 0, std::ssize(partition_maps));
  for (const PartitionTypeMap& row : std::span(partition_maps, static_cast<size_t>(rows))) {
    if (std::strcmp(row.guid, guidText) == 0) return static_cast<uint8_t>(row.mbr_type);
  }
  return 0;
}

}  // namespace

CHS chsOf(int32_t lba) {
  constexpr int32_t kSectorsPerHead = 63;
  constexpr int32_t kSectorsPerCylinder = 255 * kSectorsPerHead;
  constexpr int32_t kMaximumCylinder = 1023;
  CHS chs = {};
  chs.cylinder = lba / kSectorsPerCylinder;
  const int32_t rest = lba - chs.cylinder * kSectorsPerCylinder;
  chs.head = rest / kSectorsPerHead;
  chs.sector = rest - kSectorsPerHead * chs.head + 1;
  // Only the cylinder is limited, and only for numbers that are not negative: slots on existing disks have these
  // values.
  if (lba >= (kMaximumCylinder + 1) * kSectorsPerCylinder) chs.cylinder = kMaximumCylinder;
  return chs;
}

void decodeMBR(Bytes sector, PartitionTable& table, uint32_t* active) {
  takeBytes(sector, 0, table.boot_code);
  for (size_t i = 0; i < kSlotCount; ++i) {
    const size_t offset = kBootCodeSize + i * kSlotSize;
    MBRPartitionEntry& slot = table.parts[i];
    takeInteger(sector, offset, slot.flag);
    if (sector.size() > offset && slot.flag == kActiveFlag && active != nullptr) {
      *active = static_cast<uint32_t>(i + 1);
    }
    takeInteger(sector, offset + 1, slot.start_head);
    takeSectorAndTrack(sector, offset + 2, slot.start_sector, slot.start_track);
    takeInteger(sector, offset + 4, slot.type);
    takeInteger(sector, offset + 5, slot.end_head);
    takeSectorAndTrack(sector, offset + 6, slot.end_sector, slot.end_track);
    takeInteger(sector, offset + 8, slot.lba);
    takeInteger(sector, offset + 12, slot.size);
  }
  takeInteger(sector, 510, table.signature);
}

std::array<uint8_t, kSlotSize * kSlotCount> encodeSlots(const MBRPartitionEntry (&parts)[kSlotCount]) {
  std::array<uint8_t, kSlotSize* kSlotCount> bytes = {};
  uint8_t* to = bytes.data();
  for (const MBRPartitionEntry& slot : parts) {
    to[0] = slot.flag;
    to[1] = slot.start_head;
    putSectorAndTrack(to + 2, slot.start_sector, slot.start_track);
    to[4] = slot.type;
    to[5] = slot.end_head;
    putSectorAndTrack(to + 6, slot.end_sector, slot.end_track);
    putLittleEndian(to + 8, 4, slot.lba);
    putLittleEndian(to + 12, 4, slot.size);
    to += kSlotSize;
  }
  return bytes;
}

void decodeGPTHeader(Bytes sector, GPTHeader& header) {
  takeInteger(sector, 0, header.signature);
  takeInteger(sector, 8, header.revision);
  takeInteger(sector, 12, header.header_size);
  takeInteger(sector, 16, header.header_crc32);
  takeInteger(sector, 20, header.reserved);
  takeInteger(sector, 24, header.my_lba);
  takeInteger(sector, 32, header.alternate_lba);
  takeInteger(sector, 40, header.first_usable_lba);
  takeInteger(sector, 48, header.last_usable_lba);
  takeBytes(sector, 56, header.disk_guid);
  takeInteger(sector, 72, header.partition_entry_lba);
  takeInteger(sector, 80, header.number_of_entries);
  takeInteger(sector, 84, header.size_of_entry);
  takeInteger(sector, 88, header.entries_crc32);
  takeBytes(sector, 92, header.remainder);
}

uint64_t entriesOffset(const GPTHeader& header, uint64_t blockSize) {
  constexpr uint64_t kLargest = std::numeric_limits<uint64_t>::max();
  if (blockSize != 0 && header.partition_entry_lba > kLargest / blockSize) return kLargest;
  return header.partition_entry_lba * blockSize;
}

uint32_t boundedEntryCount(const GPTHeader& header) {
  return std::min(header.number_of_entries, kMaximumEntries);
}

bool decodeGPTEntry(Bytes bytes, GPTEntry& entry) {
  takeBytes(bytes, 0, entry.type_guid);
  ConvertToGUID(entry.type_guid, entry.guid_text);
  if (!isUsed(entry)) {
    std::fill(std::begin(entry.unique_guid), std::end(entry.unique_guid), uint8_t{0});
    return false;
  }
  takeBytes(bytes, 16, entry.unique_guid);
  takeInteger(bytes, 32, entry.first_lba);
  takeInteger(bytes, 40, entry.last_lba);
  takeInteger(bytes, 48, entry.attributes);
  takeBytes(bytes, 56, entry.name);
  return true;
}

bool isUsed(const GPTEntry& entry) {
  return std::strcmp(entry.guid_text, kUnusedGUID) != 0;
}

MBRPartitionEntry hybridSlot(const GPTEntry& entry, bool active) {
  const auto first = static_cast<uint32_t>(entry.first_lba);
  const auto last = static_cast<uint32_t>(entry.last_lba);
  MBRPartitionEntry slot = {};
  slot.flag = active ? kActiveFlag : uint8_t{0};
  slot.lba = first;
  slot.size = last - first + 1;
  auto start = static_cast<int32_t>(first);
  // The EFI System Partition becomes the protective entry, which starts at the GPT header.
  if (std::strcmp(entry.guid_text, kEFISystemGUID) == 0) {
    slot.lba = 1;
    slot.size = last;
    start = 1;
  }
  slot.type = mbrTypeOf(entry.guid_text);
  const CHS from = chsOf(start);
  const CHS to = chsOf(static_cast<int32_t>(last));
  slot.start_track = static_cast<uint16_t>(from.cylinder);
  slot.start_head = static_cast<uint8_t>(from.head);
  slot.start_sector = static_cast<uint8_t>(from.sector);
  slot.end_track = static_cast<uint16_t>(to.cylinder);
  slot.end_head = static_cast<uint8_t>(to.head);
  slot.end_sector = static_cast<uint8_t>(to.sector);
  return slot;
}

MBRPartitionEntry slotFor(const GPTEntry& entry, uint32_t number, uint32_t active) {
  return isUsed(entry) ? hybridSlot(entry, number == active) : MBRPartitionEntry{};
}

PartitionTable hybridTable(std::span<const GPTEntry> entries, uint32_t active) {
  PartitionTable table = {};
  table.signature = kMBRSignature;
  for (uint32_t i = 0; i < kSlotCount && i < entries.size(); ++i) table.parts[i] = slotFor(entries[i], i + 1, active);
  return table;
}

std::array<uint32_t, 10> fieldsOf(const MBRPartitionEntry& slot) {
  return {slot.lba,      slot.size,       slot.start_head, slot.start_sector, slot.start_track,
          slot.end_head, slot.end_sector, slot.end_track,  slot.type,         slot.flag};
}

bool sameSlot(const MBRPartitionEntry& one, const MBRPartitionEntry& other) {
  return encodeSlots({one, {}, {}, {}}) == encodeSlots({other, {}, {}, {}});
}

void makeGuard(PartitionTable& table, uint64_t lastUsableLBA) {
  MBRPartitionEntry& first = table.parts[0];
  first.flag = 0;
  // Both values mean "beyond the range of CHS", so firmware that also reads the start ignores CHS.
  first.start_head = first.end_head = 254;
  first.start_sector = first.end_sector = 63;
  first.start_track = first.end_track = 1023;
  first.size = static_cast<uint32_t>(lastUsableLBA) + 33;  // the backup entries and header follow the last usable LBA
  for (size_t i = 1; i < kSlotCount; ++i) table.parts[i] = {};
}

}  // namespace vorlix

void calculate_chs(uint32_t* chs, int32_t lba) {
  const vorlix::CHS result = vorlix::chsOf(lba);
  chs[0] = static_cast<uint32_t>(result.cylinder);
  chs[1] = static_cast<uint32_t>(result.head);
  chs[2] = static_cast<uint32_t>(result.sector);
}

int ConvertToGUID(const uint8_t* guid, char* text) {
  // On disk the first three groups are little-endian numbers. -1 represents a dash.
  constexpr int kOrder[] = {3, 2, 1, 0, -1, 5, 4, -1, 7, 6, -1, 8, 9, -1, 10, 11, 12, 13, 14, 15};
  constexpr const char* kDigits = "0123456789ABCDEF";
  char* to = text;
  for (const int index : kOrder) {
    if (index < 0) {
      *to++ = '-';
    } else {
      *to++ = kDigits[guid[index] >> 4];
      *to++ = kDigits[guid[index] & 15];
    }
  }
  *to = '\0';
  return static_cast<int>(to - text);
}
