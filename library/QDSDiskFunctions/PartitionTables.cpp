// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <tuple>

#include <Vorlix/PartitionRecords.h>
#include "Arguments.h"
#include "Log.h"
#include "LogPlaces.h"
#include "OpenDevices.h"

using vorlix::logMessage;
using vorlix::orEmpty;

namespace {

// Reads entries from a stream in large pieces. After the end of the stream, entries have no bytes.
class EntryReader {
 public:
  EntryReader(FILE* stream, uint32_t count) : stream_(stream), left_(count) {}

  vorlix::Bytes next() {
    if (position_ == filled_) fill();
    const size_t count = std::min(vorlix::kGPTEntrySize, filled_ - position_);
    const vorlix::Bytes entry(buffer_.data() + position_, count);
    position_ += count;
    return entry;
  }

 private:
  void fill() {
    const size_t wanted = std::min<uint64_t>(buffer_.size(), uint64_t{left_} * vorlix::kGPTEntrySize);
    filled_ = ended_ ? 0 : std::fread(buffer_.data(), 1, wanted, stream_);
    ended_ = ended_ || filled_ < wanted;
    left_ -= static_cast<uint32_t>(wanted / vorlix::kGPTEntrySize);
    position_ = 0;
  }

  FILE* stream_;
  uint32_t left_;
  bool ended_ = false;
  size_t filled_ = 0;
  size_t position_ = 0;
  std::array<uint8_t, 128 * vorlix::kGPTEntrySize> buffer_;
};

// Log labels of the fields in the order of fieldsOf(). Programs that read the log expect this irregular spacing.
constexpr const char* kFieldLabels[] = {
    "lba is different: ",          "lba size is different: ",     "start_head is different: ",
    "start_sector is different: ", "start_track is different:  ", "end_head is different:  ",
    "end_sector is different: ",   "end_track is different: ",    "type is different: ",
    "flag is different: "};

bool slotDiffers(const MBRPartitionEntry& fresh, const MBRPartitionEntry& disk) {
  const auto wanted = vorlix::fieldsOf(fresh);
  const auto found = vorlix::fieldsOf(disk);
  static_assert(std::size(kFieldLabels) == std::tuple_size_v<decltype(wanted)>);
  for (size_t i = 0; i < wanted.size(); ++i) {
    if (wanted[i] == found[i]) continue;
    logMessage("%s%d - %d\n", kFieldLabels[i], static_cast<int>(wanted[i]), static_cast<int>(found[i]));
  }
  return wanted != found;
}

}  // namespace

uint64_t getblocksize(const char* device) try {
  device = orEmpty(device);
  logMessage("Getting block size for device %s", device);
  std::optional<int64_t> blockSize;
  if (const auto session = vorlix::platform().diskArbitration->createSession()) {
    if (const auto disk = session->diskFromBSDName(device)) blockSize = disk->blockSize();
  }
  if (!blockSize) logMessage("Error getting number. Unknown volume size line:%i", vorlix::kPlaceUnknownBlockSize);
  const auto result = static_cast<unsigned long long>(blockSize.value_or(0));
  logMessage("Found blockSize: %llu", result);
  return result;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return 0;
}

int read_bios_partition_table(FILE* stream, PartitionTable* table, uint32_t* active) {
  table->signature = vorlix::kMBRSignature;
  std::array<uint8_t, vorlix::kSectorSize> sector;
  const size_t count = std::fread(sector.data(), 1, sector.size(), stream);
  vorlix::decodeMBR({sector.data(), count}, *table, active);
  return 0;
}

int read_gpt_header(FILE* stream, GPTHeader* header) {
  std::array<uint8_t, vorlix::kSectorSize> sector;
  const size_t count = std::fread(sector.data(), 1, sector.size(), stream);
  vorlix::decodeGPTHeader({sector.data(), count}, *header);
  return 0;
}

void read_gpt(FILE* stream, PartitionTable* table, GPTEntry* entries, const GPTHeader* header, uint32_t active,
              int guard) {
  logMessage("Reading GPT. line:%i", vorlix::kPlaceReadingGPT);
  table->signature = vorlix::kMBRSignature;
  logMessage("Setting signature to %02x", static_cast<unsigned>(table->signature));

  EntryReader reader(stream, header->number_of_entries);
  for (uint32_t i = 0; i < header->number_of_entries; ++i) {
    vorlix::decodeGPTEntry(reader.next(), entries[i]);
    if (i < vorlix::kSlotCount) table->parts[i] = vorlix::slotFor(entries[i], i + 1, active);
  }

  if (guard == 1) {
    logMessage("Changing to standard guard MBR line:%i", vorlix::kPlaceGuard);
    vorlix::makeGuard(*table, header->last_usable_lba);
  }
}

int print_gpt(const GPTEntry* entries) {
  constexpr int kPrintedEntries = 128;
  std::puts(" -------------------------------------- GPT ----------------------------------");
  std::puts("      start       size  index  contents");
  int index = 0;
  for (int i = 0; i < kPrintedEntries; ++i) {
    const GPTEntry& entry = entries[i];
    if (!vorlix::isUsed(entry)) continue;
    // The column with the heading "size" has always contained the last LBA, and scripts rely on that.
    std::printf("%10lli %11lli %6i  GPT part - %s\n", static_cast<long long>(entry.first_lba),
                static_cast<long long>(entry.last_lba), ++index, entry.guid_text);
  }
  return 0;
}

void print_bios_partition_table(const PartitionTable* table) {
  logMessage("\n\n line:%i", vorlix::kPlaceTableGap);
  logMessage(" ----------------------------- BIOS Partition Table--------------------------\n line:%i",
             vorlix::kPlaceTableTitle);
  logMessage(" #: id  cyl  hd sec -  cyl  hd sec [     start -       size]\n line:%i", vorlix::kPlaceTableColumns);
  logMessage("------------------------------------------------------------------------\n line:%i",
             vorlix::kPlaceTableRule);
  int number = 0;
  for (const MBRPartitionEntry& slot : table->parts) {
    logMessage((slot.flag & vorlix::kActiveFlag) != 0 ? "* %s" : " %s", "");
    logMessage("%1i: %02X %4hu %3i %3i - %4hu %3i %3i [%10i - %10i]\n", ++number, static_cast<unsigned>(slot.type),
               slot.start_track, slot.start_head, slot.start_sector, slot.end_track, slot.end_head, slot.end_sector,
               static_cast<int>(slot.lba), static_cast<int>(slot.size));
  }
}

int ComparePartitionTables(const MBRPartitionEntry* fresh, const MBRPartitionEntry* disk) {
  logMessage("Comparing partition tables. line:%i", vorlix::kPlaceComparing);
  for (int i = 0; i < static_cast<int>(vorlix::kSlotCount); ++i) {
    logMessage("Comparing partition index %d", i);
    if (slotDiffers(fresh[i], disk[i])) return -1;
  }
  return 0;
}

int has_guard_mbr(const char* device) try {
  device = orEmpty(device);
  logMessage("Checking for guard MBR on disk %s", device);
  PartitionTable table = {};
  uint32_t active = 0;
  vorlix::Stream stream = vorlix::openDeviceForReading(device);
  if (stream) read_bios_partition_table(stream.get(), &table, &active);
  // The device stays open after the call, because hosts rely on that.
  vorlix::keepOpen(std::move(stream));
  const bool guard = table.parts[1].type == 0;
  logMessage(guard ? "Found guard MBR.%s" : "Found hybrid MBR%s", "");
  return guard ? 1 : 0;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return 1;  // slot 2 is unknown
}
