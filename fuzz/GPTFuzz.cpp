// SPDX-License-Identifier: Apache-2.0
//
// Reads a GPT header and entries from the first bytes of a disk, through streams as in the library. The first byte of
// the boot code, which no reader uses, selects the options: bits 0-2 the active number, bit 3 the guard switch, bit 4
// blocks of 4096 bytes instead of 512.
#include <Vorlix/GPTCheck.h>
#include <Vorlix/PartitionRecords.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include "library/QDSDiskFunctions/OpenDevices.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <vector>

#include "FuzzSupport.h"

static_assert(std::endian::native == std::endian::little,
              "records are compared with the disk's bytes without conversion");

namespace {

constexpr size_t kLargestInput = size_t{1} << 20;
constexpr uint8_t kUntouched = 0xA5;

struct Input {
  const uint8_t* data;
  size_t size;

  size_t bytesFrom(uint64_t offset, size_t wanted) const {
    if (offset >= size) return 0;
    return static_cast<size_t>(std::min<uint64_t>(wanted, size - offset));
  }
};

bool isZero(const uint8_t* bytes, size_t count) {
  return std::all_of(bytes, bytes + count, [](uint8_t byte) { return byte == 0; });
}

template <typename Record>
const uint8_t* bytesOf(const Record& record) {
  return reinterpret_cast<const uint8_t*>(&record);
}

// Fields that the input covers have the input's values; the others stay zero.
void checkHeader(const GPTHeader& header, const Input& input, uint64_t offset) {
  const size_t held = input.bytesFrom(offset, sizeof header);
  const uint8_t* const bytes = bytesOf(header);
  if (held == sizeof header) FUZZ_CHECK(std::memcmp(bytes, input.data + offset, held) == 0);
  FUZZ_CHECK(isZero(bytes + held, sizeof header - held));
}

// Returns whether the entry is in use.
bool checkEntry(const GPTEntry& entry, const Input& input, uint64_t offset) {
  const size_t held = input.bytesFrom(offset, vorlix::kGPTEntrySize);
  const uint8_t* const bytes = bytesOf(entry);
  const bool used = !isZero(entry.type_guid, sizeof entry.type_guid);
  FUZZ_CHECK(isZero(bytes + held, vorlix::kGPTEntrySize - held));
  FUZZ_CHECK(std::strlen(entry.guid_text) == 36);
  FUZZ_CHECK(used == (std::strcmp(entry.guid_text, "00000000-0000-0000-0000-000000000000") != 0));
  if (!used) FUZZ_CHECK(isZero(bytes, vorlix::kGPTEntrySize));
  if (used && held == vorlix::kGPTEntrySize) FUZZ_CHECK(std::memcmp(bytes, input.data + offset, held) == 0);
  return used;
}

// Cylinder, head and sector must correspond to the sector number if the cylinder fits into ten bits.
void checkCHS(uint32_t lba, uint16_t cylinder, uint8_t head, uint8_t sector) {
  if (lba > static_cast<uint32_t>(std::numeric_limits<int32_t>::max())) return;
  FUZZ_CHECK(cylinder <= 1023 && head <= 254 && sector >= 1 && sector <= 63);
  const uint32_t expected = lba < 1024 * 16065 ? lba : 1023 * 16065 + lba % 16065;
  FUZZ_CHECK((cylinder * 255U + head) * 63U + sector - 1U == expected);
}

void checkHybridSlot(const MBRPartitionEntry& slot, const GPTEntry& entry, bool active) {
  const bool isESP = std::strcmp(entry.guid_text, "C12A7328-F81F-11D2-BA4B-00A0C93EC93B") == 0;
  const auto first = static_cast<uint32_t>(entry.first_lba);
  const auto last = static_cast<uint32_t>(entry.last_lba);
  FUZZ_CHECK(slot.flag == (active ? 0x80 : 0x00));
  FUZZ_CHECK((slot.type == 0xEE) == isESP);
  FUZZ_CHECK(slot.lba == (isESP ? 1 : first));
  // In both cases, start plus size is the block after the partition's last one, in 32-bit arithmetic.
  FUZZ_CHECK(slot.lba + slot.size == last + 1);
  checkCHS(slot.lba, slot.start_track, slot.start_head, slot.start_sector);
  checkCHS(last, slot.end_track, slot.end_head, slot.end_sector);
}

bool isEmpty(const MBRPartitionEntry& slot) {
  return slot.flag == 0 && slot.start_head == 0 && slot.start_sector == 0 && slot.start_track == 0 && slot.type == 0 &&
         slot.end_head == 0 && slot.end_sector == 0 && slot.end_track == 0 && slot.lba == 0 && slot.size == 0;
}

bool isUntouched(const MBRPartitionEntry& slot) {
  MBRPartitionEntry untouched;
  std::memset(&untouched, kUntouched, sizeof untouched);
  return std::memcmp(&slot, &untouched, sizeof slot) == 0;
}

void checkHybrid(const PartitionTable& table, const std::vector<GPTEntry>& entries, const std::vector<bool>& used,
                 uint32_t active) {
  for (size_t i = 0; i < vorlix::kSlotCount; ++i) {
    const MBRPartitionEntry& slot = table.parts[i];
    if (i >= entries.size()) {
      FUZZ_CHECK(isUntouched(slot));
    } else if (!used[i]) {
      FUZZ_CHECK(isEmpty(slot));
    } else {
      checkHybridSlot(slot, entries[i], i + 1 == active);
    }
  }
}

void checkGuard(const PartitionTable& table, const GPTHeader& header) {
  const MBRPartitionEntry& first = table.parts[0];
  FUZZ_CHECK(first.flag == 0 && first.size == static_cast<uint32_t>(header.last_usable_lba) + 33);
  FUZZ_CHECK(first.start_track == 1023 && first.start_head == 254 && first.start_sector == 63);
  FUZZ_CHECK(first.end_track == 1023 && first.end_head == 254 && first.end_sector == 63);
  for (size_t i = 1; i < vorlix::kSlotCount; ++i) FUZZ_CHECK(isEmpty(table.parts[i]));
}

void checkTable(const PartitionTable& table, const std::vector<GPTEntry>& entries, const std::vector<bool>& used,
                const GPTHeader& header, uint32_t active, bool guard) {
  FUZZ_CHECK(table.signature == 0xAA55);
  FUZZ_CHECK(std::all_of(std::begin(table.boot_code), std::end(table.boot_code),
                         [](uint8_t byte) { return byte == kUntouched; }));
  if (guard) {
    checkGuard(table, header);
  } else {
    checkHybrid(table, entries, used, active);
  }
}

// The report's size must be bounded. If it has no findings, all entries must be on the disk and must not overlap.
void checkReport(const Input& input, uint64_t blockSize) {
  const auto read = [&](uint64_t offset, std::span<uint8_t> bytes) {
    const size_t count = offset < input.size ? std::min<size_t>(bytes.size(), input.size - offset) : 0;
    std::copy_n(input.data + (count == 0 ? 0 : offset), count, bytes.begin());
    return count;
  };
  const vorlix::GPTReport report = vorlix::checkGPT(read, input.size, blockSize);
  FUZZ_CHECK(report.findings.size() <= 32);
  FUZZ_CHECK(report.entries.size() <= std::max<uint64_t>(4, input.size / vorlix::kGPTEntrySize));
  FUZZ_CHECK(report.headerLBA || report.entries.empty());
  if (!report.findings.empty()) return;
  FUZZ_CHECK(vorlix::overlappingEntries(report.entries).empty());
  for (const GPTEntry& entry : report.entries) {
    if (!vorlix::isUsed(entry)) continue;
    FUZZ_CHECK(entry.first_lba <= entry.last_lba && entry.last_lba < input.size / blockSize);
  }
}

void seekTo(FILE* stream, uint64_t offset) {
  constexpr auto kLargest = static_cast<uint64_t>(std::numeric_limits<off_t>::max());
  FUZZ_CHECK(fseeko(stream, static_cast<off_t>(std::min(offset, kLargest)), SEEK_SET) == 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > kLargestInput) return 0;
  static const fuzz::Workplace workplace;
  workplace.emptyLog();
  const Input input{data, size};
  const uint32_t active = data[0] & 7;
  const bool guard = (data[0] & 8) != 0;
  const uint64_t blockSize = (data[0] & 16) != 0 ? 4096 : 512;

  vorlix::SimulatedMachine machine;
  machine.setLogFile(workplace.log());
  machine.addDisk("disk0", size, static_cast<uint32_t>(blockSize));
  machine.setBytes("disk0", 0, std::vector<uint8_t>(data, data + size));
  const vorlix::ScopedPlatform scope(machine.platform());
  const vorlix::Stream stream = vorlix::openDeviceForReading("disk0");
  FUZZ_CHECK(stream != nullptr);

  GPTHeader header = {};
  seekTo(stream.get(), blockSize);
  read_gpt_header(stream.get(), &header);
  checkHeader(header, input, blockSize);

  const uint32_t bounded = vorlix::boundedEntryCount(header);
  FUZZ_CHECK(bounded <= 65536 && bounded <= header.number_of_entries);
  const uint64_t offset = vorlix::entriesOffset(header, blockSize);
  FUZZ_CHECK(offset / blockSize == header.partition_entry_lba || offset == std::numeric_limits<uint64_t>::max());

  // A few entries past the end of the input are enough to see that such entries stay unchanged.
  constexpr uint32_t kPastTheEnd = 8;
  const auto inside = static_cast<uint32_t>(input.bytesFrom(offset, size) / vorlix::kGPTEntrySize);
  header.number_of_entries = std::min(bounded, inside + kPastTheEnd);
  std::vector<GPTEntry> entries(header.number_of_entries);
  PartitionTable table;
  std::memset(static_cast<void*>(&table), kUntouched, sizeof table);
  seekTo(stream.get(), offset);
  read_gpt(stream.get(), &table, entries.data(), &header, active, guard ? 1 : 0);

  std::vector<bool> used;
  for (uint64_t i = 0; i < entries.size(); ++i) {
    used.push_back(checkEntry(entries[i], input, offset + i * vorlix::kGPTEntrySize));
  }
  checkTable(table, entries, used, header, active, guard);
  checkReport(input, blockSize);
  return 0;
}
