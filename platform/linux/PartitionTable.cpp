// SPDX-License-Identifier: Apache-2.0
#include "PartitionTable.h"

#include <blkid.h>

#include <charconv>
#include <memory>
#include <type_traits>

#include "platform/posix/PartitionExtents.h"

namespace vorlix {
namespace {

constexpr uint64_t kSector = 512;  // libblkid's unit on disks of any block size
constexpr uint32_t kMostEntriesOfDamagedTable = 128;

struct ProbeDeleter {
  void operator()(blkid_probe probe) const { blkid_free_probe(probe); }
};
using Probe = std::unique_ptr<std::remove_pointer_t<blkid_probe>, ProbeDeleter>;

std::optional<UUID> identifierOf(const char* text) {
  return text == nullptr ? std::nullopt : UUID::fromText(text);
}

std::string mbrContent(unsigned type) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  return {'0', 'x', kDigits[type >> 4 & 15], kDigits[type & 15]};
}

TableEntry entryOf(blkid_partition partition) {
  TableEntry entry;
  entry.number = static_cast<uint32_t>(blkid_partition_get_partno(partition));
  entry.extent = {static_cast<uint64_t>(blkid_partition_get_start(partition)) * kSector,
                  static_cast<uint64_t>(blkid_partition_get_size(partition)) * kSector};
  entry.uuid = identifierOf(blkid_partition_get_uuid(partition));
  const char* const type = blkid_partition_get_type_string(partition);
  entry.content =
      type == nullptr ? mbrContent(static_cast<unsigned>(blkid_partition_get_type(partition))) : tableContent(type);
  return entry;
}

// Entry by entry, for a GPT that libblkid refuses.
PartitionTable readDamagedGPT(int descriptor, uint64_t diskSize, uint32_t blockSize) {
  PartitionTable table;
  table.scheme = "gpt";
  for (uint32_t number = 1; number <= kMostEntriesOfDamagedTable; ++number) {
    const auto extent = partitionExtent(descriptor, diskSize, blockSize, number);
    if (extent) table.entries.push_back({number, *extent, std::nullopt, ""});
  }
  return table;
}

PartitionTable tableOf(blkid_probe probe) {
  PartitionTable table;
  const blkid_partlist list = blkid_probe_get_partitions(probe);
  const blkid_parttable root = list == nullptr ? nullptr : blkid_partlist_get_table(list);
  if (root == nullptr) return table;
  table.scheme = blkid_parttable_get_type(root);
  if (table.scheme == "gpt") table.uuid = identifierOf(blkid_parttable_get_id(root));
  for (int i = 0; i < blkid_partlist_numof_partitions(list); ++i) {
    const blkid_partition partition = blkid_partlist_get_partition(list, i);
    // Tables inside a partition number their entries on their own.
    if (partition == nullptr || blkid_partition_get_table(partition) != root) continue;
    table.entries.push_back(entryOf(partition));
  }
  return table;
}

}  // namespace

PartitionTable readPartitionTable(int descriptor, uint64_t diskSize, uint32_t blockSize) {
  const Probe probe(blkid_new_probe());
  if (!probe || blkid_probe_set_device(probe.get(), descriptor, 0, 0) != 0) return {};
  blkid_probe_set_sectorsize(probe.get(), blockSize);
  blkid_probe_enable_superblocks(probe.get(), 0);
  blkid_probe_enable_partitions(probe.get(), 1);
  if (!gptHeaderLBA(descriptor, diskSize, blockSize)) return tableOf(probe.get());

  char gpt[] = "gpt";
  char* onlyGPT[] = {gpt, nullptr};
  blkid_probe_set_partitions_flags(probe.get(), BLKID_PARTS_FORCE_GPT);
  blkid_probe_filter_partitions_type(probe.get(), BLKID_FLTR_ONLYIN, onlyGPT);
  PartitionTable table = tableOf(probe.get());
  return table.scheme.empty() ? readDamagedGPT(descriptor, diskSize, blockSize) : table;
}

std::string tableContent(const std::string& type) {
  if (const auto identifier = UUID::fromText(type)) return identifier->text();
  if (type.rfind("0x", 0) != 0) return "";
  uint8_t number = 0;
  const char* const end = type.data() + type.size();
  const auto [stop, error] = std::from_chars(type.data() + 2, end, number, 16);
  if (error != std::errc() || stop != end) return "";
  return mbrContent(number);
}

std::string schemeContent(const std::string& scheme) {
  if (scheme == "gpt") return "GUID_partition_scheme";
  if (scheme == "dos") return "FDisk_partition_scheme";
  return "";
}

}  // namespace vorlix
