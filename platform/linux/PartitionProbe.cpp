// SPDX-License-Identifier: Apache-2.0
#include "PartitionProbe.h"

#include <Vorlix/foundation/HexDigits.h>
#include <Vorlix/foundation/Utf8.h>

#include <charconv>

#include "BlkidProbe.h"
#include "platform/posix/PartitionExtents.h"

namespace vorlix {
namespace {

constexpr uint32_t kMostEntriesOfDamagedTable = 128;

std::optional<UUID> identifierOf(const char* text) {
  return text == nullptr ? std::nullopt : UUID::fromText(text);
}

std::string mbrContent(unsigned type) {
  std::string text = "0x";
  appendUpperHex(text, static_cast<uint8_t>(type));
  return text;
}

ProbedEntry probedEntryOf(blkid_partition partition) {
  ProbedEntry entry;
  entry.number = static_cast<uint32_t>(blkid_partition_get_partno(partition));
  entry.extent = {static_cast<uint64_t>(blkid_partition_get_start(partition)) * kBlkidSector,
                  static_cast<uint64_t>(blkid_partition_get_size(partition)) * kBlkidSector};
  entry.uuid = identifierOf(blkid_partition_get_uuid(partition));
  const char* const type = blkid_partition_get_type_string(partition);
  entry.content =
      type == nullptr ? mbrContent(static_cast<unsigned>(blkid_partition_get_type(partition))) : tableContent(type);
  return entry;
}

// Reads the entries one by one, for a GPT that libblkid refuses.
ProbedTable readDamagedGPT(int descriptor, uint64_t diskSize, uint32_t blockSize) {
  ProbedTable table;
  table.scheme = "gpt";
  for (uint32_t number = 1; number <= kMostEntriesOfDamagedTable; ++number) {
    const auto extent = partitionExtent(descriptor, diskSize, blockSize, number);
    if (extent) table.entries.push_back({number, *extent, std::nullopt, ""});
  }
  return table;
}

ProbedTable tableOf(blkid_probe probe) {
  ProbedTable table;
  const blkid_partlist list = blkid_probe_get_partitions(probe);
  const blkid_parttable root = list == nullptr ? nullptr : blkid_partlist_get_table(list);
  if (root == nullptr) return table;
  table.scheme = blkid_parttable_get_type(root);
  if (table.scheme == "gpt") table.uuid = identifierOf(blkid_parttable_get_id(root));
  for (int i = 0; i < blkid_partlist_numof_partitions(list); ++i) {
    const blkid_partition partition = blkid_partlist_get_partition(list, i);
    // Entries of tables inside a partition have their own numbers.
    if (partition == nullptr || blkid_partition_get_table(partition) != root) continue;
    table.entries.push_back(probedEntryOf(partition));
  }
  return table;
}

}  // namespace

ProbedTable probePartitionTable(int descriptor, uint64_t diskSize, uint32_t blockSize) {
  const BlkidProbe probe = blkidProbeOf(descriptor, {});
  if (!probe) return {};
  blkid_probe_set_sectorsize(probe.get(), blockSize);
  blkid_probe_enable_partitions(probe.get(), 1);
  if (!gptHeaderLBA(descriptor, diskSize, blockSize)) return tableOf(probe.get());

  char gpt[] = "gpt";
  char* onlyGPT[] = {gpt, nullptr};
  blkid_probe_set_partitions_flags(probe.get(), BLKID_PARTS_FORCE_GPT);
  blkid_probe_filter_partitions_type(probe.get(), BLKID_FLTR_ONLYIN, onlyGPT);
  ProbedTable table = tableOf(probe.get());
  return table.scheme.empty() ? readDamagedGPT(descriptor, diskSize, blockSize) : table;
}

std::optional<std::string> probePartitionName(int descriptor, uint32_t blockSize, uint32_t number) {
  const BlkidProbe probe = blkidProbeOf(descriptor, {});
  if (!probe || blkid_probe_set_sectorsize(probe.get(), blockSize) != 0) return std::nullopt;
  const blkid_partlist list = blkid_probe_get_partitions(probe.get());
  if (list == nullptr) return std::nullopt;
  const blkid_partition partition = blkid_partlist_get_partition_by_partno(list, static_cast<int>(number));
  const char* const name = partition == nullptr ? nullptr : blkid_partition_get_name(partition);
  if (name == nullptr || *name == '\0') return std::nullopt;
  return repairedUtf8(name);
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
