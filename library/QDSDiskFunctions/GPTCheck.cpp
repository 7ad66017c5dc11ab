// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/GPTCheck.h>

#include "foundation/GUIDPartitionTable.h"

#include <algorithm>
#include <utility>

namespace vorlix {
namespace {

constexpr uint64_t kPrimaryLBA = 1;
constexpr uint32_t kSmallestHeader = 92;
constexpr size_t kMostEntryFindings = 16;

std::string lbaText(uint64_t lba) {
  return "LBA " + std::to_string(lba);
}

std::string entryText(size_t index) {
  return "entry " + std::to_string(index + 1);
}

class Check {
 public:
  Check(const DiskReader& read, uint64_t diskSize, uint64_t blockSize)
      : read_(read), diskSize_(diskSize), blockSize_(blockSize), blocks_(diskSize / blockSize) {}

  GPTReport run() {
    findTable();
    if (!report_.headerLBA) return std::move(report_);
    readEntries();
    if (*report_.headerLBA == kPrimaryLBA) {
      checkHeader();
      checkEntryTable();
      checkBackup();
    } else {
      // The checksum of this header was checked when it was found.
      checkUsableRange();
      checkEntryTable();
    }
    checkEntries();
    return std::move(report_);
  }

 private:
  const GPTHeader& header() const { return report_.header; }

  void add(const char* code, const std::string& text) { report_.findings.push_back({code, text}); }

  std::vector<uint8_t> block(uint64_t lba) const {
    if (lba >= blocks_) return {};
    std::vector<uint8_t> bytes(blockSize_);
    bytes.resize(read_(lba * blockSize_, bytes));
    return bytes;
  }

  void findTable() {
    headerBlock_ = readFirst();
    if (hasGPTSignature(headerBlock_)) {
      takeHeader(kPrimaryLBA);
      return;
    }
    std::vector<uint8_t> sector0(kSectorSize);
    sector0.resize(read_(0, sector0));
    const uint64_t last = blocks_ - 1;
    headerBlock_ = blocks_ > 2 ? block(last) : std::vector<uint8_t>();
    if (isSoundGPTHeader(headerBlock_, last) && leavesDiskToGPT(sector0)) {
      takeHeader(last);
      add("primary-missing", "the header at LBA 1 is gone; this is the second copy of the table, at " + lbaText(last));
    } else if (isProtected(sector0)) {
      add("gpt-missing",
          "sector 0 protects a GPT, but there is no header at LBA 1 and no second one in the last block");
    }
  }

  // If the disk ends inside this block, the header still counts.
  std::vector<uint8_t> readFirst() const {
    std::vector<uint8_t> bytes(blockSize_);
    bytes.resize(read_(blockSize_, bytes));
    return bytes;
  }

  void takeHeader(uint64_t lba) {
    report_.headerLBA = lba;
    decodeGPTHeader({headerBlock_.data(), std::min(headerBlock_.size(), kSectorSize)}, report_.header);
  }

  // Reads only the entries that the disk holds. The other records stay zero, which means unused.
  void readEntries() {
    const uint64_t offset = entriesOffset(header(), blockSize_);
    const uint64_t room = diskSize_ > offset ? diskSize_ - offset : 0;
    const uint64_t held = std::min<uint64_t>(boundedEntryCount(header()), room / kGPTEntrySize);
    std::vector<uint8_t> bytes(held * kGPTEntrySize);
    bytes.resize(read_(offset, bytes));
    report_.entries.resize(std::max<size_t>(held, kSlotCount));
    for (size_t i = 0; i < report_.entries.size(); ++i) {
      const size_t from = std::min(bytes.size(), i * kGPTEntrySize);
      const size_t length = std::min(bytes.size() - from, kGPTEntrySize);
      decodeGPTEntry({bytes.data() + from, length}, report_.entries[i]);
    }
  }

  void checkHeader() {
    if (header().header_size < kSmallestHeader || header().header_size > blockSize_) {
      add("header-size", "the header says that it has " + std::to_string(header().header_size) + " bytes");
    } else if (!hasRightChecksum(headerBlock_)) {
      add("header-checksum", "the header's checksum is wrong");
    }
    if (header().my_lba != kPrimaryLBA) {
      add("header-place", "the header at LBA 1 says that it stands at " + lbaText(header().my_lba));
    }
    const uint64_t end = std::max(header().alternate_lba, header().last_usable_lba);
    if (end >= blocks_) {
      add("disk-truncated", "the disk or image is truncated: its table is for at least " + std::to_string(end + 1) +
                                " blocks, and it has " + std::to_string(blocks_));
    }
    checkUsableRange();
  }

  void checkUsableRange() {
    const uint64_t first = header().first_usable_lba;
    const uint64_t last = header().last_usable_lba;
    if (first > last || first <= kPrimaryLBA || (last < blocks_ && last >= blocks_ - 1)) {
      add("usable-range", "the usable LBAs are said to be " + std::to_string(first) + " to " + std::to_string(last));
    }
  }

  void checkEntryTable() {
    if (header().size_of_entry != kGPTEntrySize) {
      add("entry-size", "entries have " + std::to_string(header().size_of_entry) + " bytes, 128 are read");
    }
    const uint64_t offset = entriesOffset(header(), blockSize_);
    const uint64_t size = uint64_t{header().number_of_entries} * kGPTEntrySize;
    const uint64_t limit =
        *report_.headerLBA == kPrimaryLBA ? std::min(header().first_usable_lba, blocks_) : blocks_ - 1;
    if (header().partition_entry_lba >= blocks_) {
      add("entries-beyond-disk",
          "the entries are said to stand at " + lbaText(header().partition_entry_lba) + ", past the end of the disk");
    } else if (header().number_of_entries > kMaximumEntries || offset + size > limit * blockSize_) {
      add("entry-count",
          "the header claims " + std::to_string(header().number_of_entries) + " entries, for which there is no room");
    } else if (checksumOfEntries(offset, size) != header().entries_crc32) {
      add("entries-checksum", "the checksum of the entries is wrong");
    }
  }

  // Absent if the disk does not hold all entries. The callers limit `size` to kMaximumEntries entries.
  std::optional<uint32_t> checksumOfEntries(uint64_t offset, uint64_t size) const {
    std::vector<uint8_t> piece(static_cast<size_t>(std::min<uint64_t>(size, 64 * 1024)));
    uint32_t checksum = 0;
    while (size > 0) {
      const std::span<uint8_t> part(piece.data(), static_cast<size_t>(std::min<uint64_t>(piece.size(), size)));
      if (read_(offset, part) < part.size()) return std::nullopt;
      checksum = crc32(part, checksum);
      offset += part.size();
      size -= part.size();
    }
    return checksum;
  }

  void checkBackup() {
    const uint64_t lba = header().alternate_lba;
    const std::string where = "the second header, at " + lbaText(lba) + ", ";
    const std::vector<uint8_t> bytes = lba > kPrimaryLBA ? block(lba) : std::vector<uint8_t>();
    if (!hasGPTSignature(bytes)) {
      add("backup-missing", where + (lba >= blocks_ ? "would stand past the end of the disk" : "is not there"));
      return;
    }
    if (!isSoundGPTHeader(bytes, lba)) {
      add("backup-damaged", where + "has a wrong checksum or is made for another place");
      return;
    }
    GPTHeader backup = {};
    decodeGPTHeader({bytes.data(), kSectorSize}, backup);
    if (!sameContent(header(), backup)) add("backup-differs", where + "says something else than the first");
    const uint64_t offset = entriesOffset(backup, blockSize_);
    const uint64_t size = uint64_t{backup.number_of_entries} * kGPTEntrySize;
    if (backup.number_of_entries > kMaximumEntries || backup.partition_entry_lba >= blocks_ ||
        checksumOfEntries(offset, size) != backup.entries_crc32) {
      add("backup-entries", "the checksum of the second copy of the entries is wrong");
    }
  }

  static bool sameContent(const GPTHeader& one, const GPTHeader& other) {
    return one.my_lba == other.alternate_lba && one.first_usable_lba == other.first_usable_lba &&
           one.last_usable_lba == other.last_usable_lba &&
           std::equal(std::begin(one.disk_guid), std::end(one.disk_guid), std::begin(other.disk_guid)) &&
           one.number_of_entries == other.number_of_entries && one.size_of_entry == other.size_of_entry &&
           one.entries_crc32 == other.entries_crc32;
  }

  void checkEntries() {
    for (size_t i = 0; i < report_.entries.size(); ++i) {
      if (isUsed(report_.entries[i])) checkEntry(i);
    }
    for (const auto& pair : overlappingEntries(report_.entries)) {
      addOfEntry("overlap",
                 "entries " + std::to_string(pair.first) + " and " + std::to_string(pair.second) + " overlap");
    }
    if (untold_ > 0) add("more", std::to_string(untold_) + " more findings about entries");
  }

  void checkEntry(size_t index) {
    const GPTEntry& entry = report_.entries[index];
    if (entry.last_lba < entry.first_lba) {
      addOfEntry("entry-reversed", entryText(index) + " ends at " + lbaText(entry.last_lba) + ", before it begins at " +
                                       lbaText(entry.first_lba));
    } else if (entry.last_lba >= blocks_) {
      addOfEntry("entry-beyond-disk", entryText(index) + " ends at " + lbaText(entry.last_lba) + ", the disk has " +
                                          std::to_string(blocks_) + " blocks");
    } else if (entry.first_lba < header().first_usable_lba || entry.last_lba > header().last_usable_lba) {
      addOfEntry("entry-outside", entryText(index) + ", LBA " + std::to_string(entry.first_lba) + " to " +
                                      std::to_string(entry.last_lba) + ", is outside the usable LBAs");
    }
  }

  void addOfEntry(const char* code, const std::string& text) {
    if (entryFindings_++ < kMostEntryFindings) {
      add(code, text);
    } else {
      ++untold_;
    }
  }

  const DiskReader& read_;
  uint64_t diskSize_;
  uint64_t blockSize_;
  uint64_t blocks_;
  std::vector<uint8_t> headerBlock_;
  GPTReport report_;
  size_t entryFindings_ = 0;
  size_t untold_ = 0;
};

}  // namespace

GPTReport checkGPT(const DiskReader& read, uint64_t diskSize, uint64_t blockSize) {
  return Check(read, diskSize, blockSize).run();
}

std::vector<std::pair<uint32_t, uint32_t>> overlappingEntries(std::span<const GPTEntry> entries) {
  std::vector<uint32_t> order;
  for (uint32_t i = 0; i < entries.size(); ++i) {
    if (isUsed(entries[i]) && entries[i].first_lba <= entries[i].last_lba) order.push_back(i);
  }
  std::stable_sort(order.begin(), order.end(),
                   [&](uint32_t one, uint32_t other) { return entries[one].first_lba < entries[other].first_lba; });
  std::vector<std::pair<uint32_t, uint32_t>> pairs;
  // If any earlier entry overlaps the next one, the earlier entry that reaches farthest does.
  for (size_t i = 1, farthest = 0; i < order.size(); ++i) {
    const uint32_t before = order[farthest];
    const uint32_t entry = order[i];
    if (entries[entry].first_lba <= entries[before].last_lba) pairs.emplace_back(std::minmax(before, entry));
    if (entries[entry].last_lba > entries[before].last_lba) farthest = i;
  }
  for (auto& pair : pairs) pair = {pair.first + 1, pair.second + 1};
  return pairs;
}

}  // namespace vorlix
