// SPDX-License-Identifier: Apache-2.0
//
// The parts of a backup that stand on the volume's disk: boot code, partition tables, boot store.
#include "DiskParts.h"

#include <Vorlix/foundation/URL.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemError.h>
#include <Vorlix/platform/VolumeMirrors.h>
#include <Vorlix/platform/VolumeNames.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace vorlix {
namespace {

constexpr uint64_t kLargestTable = uint64_t{16} << 20;
constexpr size_t kLargestStore = size_t{16} << 20;
constexpr const char* kStore = "BCD";

// Bytes of a disk, or why there are none.
void readRun(DeviceHandle& disk, uint64_t offset, uint64_t size, BackupPart& part) {
  part.bytes.resize(static_cast<size_t>(size));
  const ssize_t got = disk.readAt(part.bytes.data(), part.bytes.size(), offset);
  if (got == static_cast<ssize_t>(size)) {
    part.diskOffset = offset;
    return;
  }
  part.isUnread = got < 0;
  part.missing = got < 0 ? SystemError{errno}.reason() : "the disk ends before";
  part.bytes.clear();
}

// From the start of the disk to the end of the first copy of the GPT, or sector 0 alone.
void readTable(DeviceHandle& disk, const VolumesDisk& facts, BackupPart& part) {
  uint64_t end = kSectorSize;
  if (facts.gpt.headerLBA == uint64_t{1}) {
    const uint64_t entries = entriesOffset(facts.gpt.header, facts.blockSize);
    end = entries + uint64_t{boundedEntryCount(facts.gpt.header)} * kGPTEntrySize;
    end = (end + facts.blockSize - 1) / facts.blockSize * facts.blockSize;
    if (entries >= kLargestTable || end > kLargestTable || end < 2 * facts.blockSize) end = 2 * facts.blockSize;
  }
  readRun(disk, 0, end, part);
}

// The entries of the second copy stand before its header, which is where the first one says, or in the last block.
void readTableCopy(DeviceHandle& disk, const VolumesDisk& facts, BackupPart& part) {
  if (!facts.gpt.headerLBA) {
    part.missing = "the disk has no GPT, and an MBR has no second copy";
    return;
  }
  const uint64_t lba = *facts.gpt.headerLBA == 1 ? facts.gpt.header.alternate_lba : *facts.gpt.headerLBA;
  std::vector<uint8_t> block(kSectorSize);
  GPTHeader header = {};
  if (lba < facts.size / facts.blockSize) {
    const ssize_t got = disk.readAt(block.data(), block.size(), lba * facts.blockSize);
    if (got < 0) {
      part.isUnread = true;
      part.missing = SystemError{errno}.reason();
      return;
    }
    if (got == static_cast<ssize_t>(kSectorSize)) decodeGPTHeader(block, header);
  }
  const uint64_t start = entriesOffset(header, facts.blockSize);
  const uint64_t end = (lba + 1) * facts.blockSize;
  if (header.signature != kGPTSignature || header.my_lba != lba || start >= end || end - start > kLargestTable) {
    part.missing = "the GPT's second copy is missing or damaged";
    return;
  }
  readRun(disk, start, end - start, part);
}

std::optional<std::string> sliceOfESP(const VolumesDisk& facts) {
  for (size_t i = 0; i < facts.gpt.entries.size(); ++i) {
    const GPTEntry& entry = facts.gpt.entries[i];
    if (isUsed(entry) && std::strcmp(entry.guid_text, kEFISystemGUID) == 0) {
      return facts.name + "s" + std::to_string(i + 1);
    }
  }
  return std::nullopt;
}

void readMountedStore(const std::string& folder, BackupPart& part) {
  const std::string path = pathInAnySpelling(folder, {"EFI", "Microsoft", "Boot", kStore});
  const auto content = platform().files->contentsOf(path, kLargestStore);
  if (content) part.bytes.assign(content->begin(), content->end());
  if (!content) part.missing = "the EFI System Partition has none that can be read";
}

// Finds an item of an unmounted volume in any spelling. Absent with a refusal if the folder cannot be read.
std::optional<UnmountedVolume::Item> findItem(const UnmountedVolume& volume, const std::string& folder,
                                              const char* name, std::optional<Dissenter>& refusal) {
  std::vector<UnmountedVolume::Item> items;
  if ((refusal = volume.list(folder, items))) return std::nullopt;
  for (const UnmountedVolume::Item& item : items) {
    if (!spellingsOf({item.name}, name).empty()) return item;
  }
  return std::nullopt;
}

void readUnmountedStore(const std::string& slice, BackupPart& part) {
  std::optional<Dissenter> refusal;
  const auto volume = platform().volumeMirrors->openToRead(slice, refusal);
  if (!volume) {
    const bool isKnown = !refusal || refusal->status == kDissentUnsupported;
    part.missing = isKnown ? "the EFI System Partition is not mounted" : slice + ": " + refusal->text;
    return;
  }
  std::string path;
  uint64_t size = 0;
  for (const char* const name : {"EFI", "Microsoft", "Boot", kStore}) {
    const auto item = findItem(*volume, path, name, refusal);
    if (refusal) {
      part.missing = slice + ": " + refusal->text;
      return;
    }
    if (!item || item->isFolder != (std::string_view(name) != kStore)) {
      part.missing = "the EFI System Partition has none";
      return;
    }
    path += "/" + item->name;
    size = item->size;
  }
  if (size > kLargestStore) {
    part.missing = slice + ": the store is larger than any";
  } else if ((refusal = volume->read(path, part.bytes))) {
    part.bytes.clear();
    part.missing = slice + ": " + refusal->text;
  }
}

// What is mounted may hold changes that are not on the disk yet, so it comes first.
void readStore(const VolumesDisk& disk, BackupPart& part) {
  const std::optional<std::string> slice = sliceOfESP(disk);
  if (!slice) {
    part.missing = "the disk has no EFI System Partition";
    return;
  }
  const auto session = platform().diskArbitration->createSession();
  const auto found = session ? session->diskFromBSDName(*slice) : nullptr;
  const std::optional<URL> mounted = found ? found->volumePath() : std::nullopt;
  mounted ? readMountedStore(mounted->path(), part) : readUnmountedStore(*slice, part);
  if (part.missing.empty() && part.bytes.empty()) part.missing = "the store on the EFI System Partition is empty";
}

}  // namespace

VolumesDisk lookAtDisk(const std::string& name) {
  VolumesDisk facts;
  facts.name = name;
  facts.handle = platform().deviceFile->open(name, DeviceAccess::readOnly, DeviceLock::none);
  if (!facts.handle) {
    facts.isUnread = errno != EACCES && errno != EPERM;
    facts.reason = SystemError{errno}.reason();
    return facts;
  }
  facts.size = facts.handle->size().value_or(0);
  facts.blockSize = std::max<uint64_t>(facts.handle->blockSize().value_or(kSectorSize), kSectorSize);
  if (facts.handle->readAt(facts.sector0.data(), facts.sector0.size(), 0) != static_cast<ssize_t>(kSectorSize)) {
    facts.isUnread = true;
    facts.reason = "its sector 0 cannot be read";
    facts.handle.reset();
    return facts;
  }
  DeviceHandle& handle = *facts.handle;
  const auto read = [&handle](uint64_t offset, std::span<uint8_t> bytes) {
    const ssize_t got = handle.readAt(bytes.data(), bytes.size(), offset);
    return got < 0 ? size_t{0} : static_cast<size_t>(got);
  };
  facts.gpt = checkGPT(read, facts.size, facts.blockSize);
  return facts;
}

void addDiskParts(const VolumesDisk& facts, bool isPartitioned, std::vector<BackupPart>& parts) {
  BackupPart code = {"bootCode", "boot-code.bin", {}, {}, {}, ""};
  BackupPart table = {"partitionTable", "partition-table.bin", {}, {}, {}, ""};
  BackupPart copy = {"partitionTableCopy", "partition-table-copy.bin", {}, {}, {}, ""};
  BackupPart store = {"bootStore", kStore, {}, {}, {}, ""};
  if (!isPartitioned || !facts.handle) {
    const std::string reason =
        isPartitioned ? facts.name + ": " + facts.reason : "the volume is not on a partitioned disk";
    for (BackupPart* const part : {&code, &table, &copy, &store}) {
      part->missing = reason;
      part->isUnread = isPartitioned && facts.isUnread;
    }
  } else {
    readRun(*facts.handle, 0, kBootCodeSize, code);
    readTable(*facts.handle, facts, table);
    readTableCopy(*facts.handle, facts, copy);
    readStore(facts, store);
  }
  for (BackupPart* const part : {&code, &table, &copy, &store}) parts.push_back(std::move(*part));
}

}  // namespace vorlix
