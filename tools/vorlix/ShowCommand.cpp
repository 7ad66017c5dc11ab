// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/PartitionRecords.h>
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/foundation/LittleEndian.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "DiskTables.h"
#include "Failure.h"
#include "Json.h"
#include "SlotJson.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

std::string chsText(unsigned cylinder, unsigned head, unsigned sector) {
  return std::to_string(cylinder) + "/" + std::to_string(head) + "/" + std::to_string(sector);
}

// What `hybrid --guard` writes, whatever a partitioning tool calls protective.
bool isGuard(const DiskTables& disk) {
  if (!disk.header) return false;
  PartitionTable guard = hybridTable(disk.entries, 0);
  makeGuard(guard, disk.header->last_usable_lba);
  return encodeSlots(guard.parts) == encodeSlots(disk.mbr.parts);
}

std::string mbrKind(const DiskTables& disk) {
  switch (mbrKindOf(disk.sector0)) {
    case MBRKind::none:
      return "none";
    case MBRKind::volume:
      return "volume";
    case MBRKind::dos:
      return "DOS";
    case MBRKind::protectsOnly:
      return isGuard(disk) ? "guard" : "protective";
    case MBRKind::hybrid:
      return "hybrid";
  }
  return "";
}

std::string diskSignature(const DiskTables& disk) {
  return hexDigits(littleEndian(disk.sector0, 440, 4), 8);
}

class Comparison {
 public:
  explicit Comparison(const DiskTables& disk)
      : disk_(disk), hybrid_(disk.header ? hybridTable(disk.entries, disk.activeSlot) : PartitionTable{}) {}

  const MBRPartitionEntry& hybrid(size_t index) const { return hybrid_.parts[index]; }
  bool equal(size_t index) const { return disk_.header && sameSlot(disk_.mbr.parts[index], hybrid_.parts[index]); }
  bool allEqual() const { return equal(0) && equal(1) && equal(2) && equal(3); }

 private:
  const DiskTables& disk_;
  PartitionTable hybrid_;
};

Json mbrJson(const DiskTables& disk) {
  const Comparison comparison(disk);
  Json slots = Json::array();
  for (size_t i = 0; i < 4; ++i) {
    Json slot = Json::object({{"slot", i + 1}});
    slot.addMembers(slotJson(disk.mbr.parts[i]));
    slot.add("equalsHybrid", comparison.equal(i));
    slot.add("hybrid", disk.header ? slotJson(comparison.hybrid(i)) : Json());
    slots.append(std::move(slot));
  }
  return Json::object({
      {"signatureValid", disk.hasMBR()},
      {"kind", mbrKind(disk)},
      {"activeSlot", disk.activeSlot},
      {"diskSignature", diskSignature(disk)},
      {"equalsHybrid", comparison.allEqual()},
      {"slots", std::move(slots)},
  });
}

uint64_t sizeOf(const GPTEntry& entry, uint64_t blockSize) {
  return entry.last_lba < entry.first_lba ? 0 : (entry.last_lba - entry.first_lba + 1) * blockSize;
}

Json gptJson(const DiskTables& disk) {
  if (!disk.header) return Json();
  Json entries = Json::array();
  for (size_t i = 0; i < disk.entries.size(); ++i) {
    const GPTEntry& entry = disk.entries[i];
    if (!isUsed(entry)) continue;
    entries.append(Json::object({
        {"number", i + 1},
        {"typeGUID", entry.guid_text},
        {"typeName", gptTypeName(entry.guid_text)},
        {"partitionGUID", guidText(entry.unique_guid)},
        {"firstLBA", entry.first_lba},
        {"lastLBA", entry.last_lba},
        {"size", sizeOf(entry, disk.blockSize)},
        {"attributes", hexDigits(entry.attributes, 16)},
        {"name", partitionName(entry)},
    }));
  }
  return Json::object({
      {"diskGUID", guidText(disk.header->disk_guid)},
      {"firstUsableLBA", disk.header->first_usable_lba},
      {"lastUsableLBA", disk.header->last_usable_lba},
      {"headerLBA", disk.headerLBA},
      {"entryLBA", disk.header->partition_entry_lba},
      {"entryCount", disk.header->number_of_entries},
      {"entries", std::move(entries)},
  });
}

Json damageJson(const DiskTables& disk) {
  Json findings = Json::array();
  for (const GPTFinding& finding : disk.damage)
    findings.append(Json::object({{"code", finding.code}, {"text", finding.text}}));
  return findings;
}

void printJson(const DiskTables& disk) {
  const Json document = Json::object({
      {"version", kJsonVersion},
      {"schema", kJsonVersion},
      {"disk", disk.device},
      {"size", disk.size},
      {"blockSize", disk.blockSize},
      {"mbr", mbrJson(disk)},
      {"gpt", gptJson(disk)},
      {"gptDamage", damageJson(disk)},
  });
  document.print();
}

std::string comparisonText(const DiskTables& disk, const Comparison& comparison, size_t index) {
  if (!disk.header) return "";
  if (comparison.equal(index)) return "equal";
  const MBRPartitionEntry& hybrid = comparison.hybrid(index);
  if (hybrid.type == 0 && hybrid.size == 0) return "differs: empty";
  return "differs: " + hexByte(hybrid.type) + " at " + std::to_string(hybrid.lba) + ", " + std::to_string(hybrid.size) +
         " sectors";
}

bool hasSlots(const DiskTables& disk) {
  return disk.hasMBR() && mbrKindOf(disk.sector0) != MBRKind::volume;
}

std::string mbrSummary(const DiskTables& disk) {
  if (!disk.hasMBR()) return "none (no 55 AA signature)";
  if (!hasSlots(disk)) return "a volume's boot sector, no partition table";
  std::string text = mbrKind(disk);
  text += disk.activeSlot == 0 ? ", no active slot" : ", active slot " + std::to_string(disk.activeSlot);
  return text + ", disk signature " + diskSignature(disk);
}

void printMBR(const DiskTables& disk) {
  const Comparison comparison(disk);
  std::vector<std::vector<std::string>> rows = {
      {"Slot", "Active", "Type", "", "First LBA", "Sectors", "Start C/H/S", "End C/H/S", "Hybrid MBR of the GPT"}};
  for (size_t i = 0; i < 4; ++i) {
    const MBRPartitionEntry& slot = disk.mbr.parts[i];
    rows.push_back({std::to_string(i + 1), slot.flag == 0x80 ? "*" : "", hexByte(slot.type), mbrTypeName(slot.type),
                    std::to_string(slot.lba), std::to_string(slot.size),
                    chsText(slot.start_track, slot.start_head, slot.start_sector),
                    chsText(slot.end_track, slot.end_head, slot.end_sector), comparisonText(disk, comparison, i)});
  }
  std::printf("\n%s", tableText(rows, "rlllrrrrl").c_str());
}

void printGPT(const DiskTables& disk) {
  std::vector<std::vector<std::string>> rows = {{"Entry", "Type", "First LBA", "Last LBA", "Size", "Name"}};
  std::vector<std::vector<std::string>> identifiers = {{"Entry", "Type GUID", "Partition GUID"}};
  for (size_t i = 0; i < disk.entries.size(); ++i) {
    const GPTEntry& entry = disk.entries[i];
    if (!isUsed(entry)) continue;
    rows.push_back({std::to_string(i + 1), gptTypeName(entry.guid_text), std::to_string(entry.first_lba),
                    std::to_string(entry.last_lba), shortSizeText(sizeOf(entry, disk.blockSize)),
                    printable(partitionName(entry))});
    identifiers.push_back({std::to_string(i + 1), entry.guid_text, guidText(entry.unique_guid)});
  }
  std::printf("\n%s", tableText(rows, "rlrrrl").c_str());
  std::printf("\n%s", tableText(identifiers, "rll").c_str());
  if (disk.header->number_of_entries > disk.entries.size()) {
    std::printf("\nThe header claims %u entries; the first %zu were read.\n", disk.header->number_of_entries,
                disk.entries.size());
  }
}

void printText(const DiskTables& disk) {
  std::printf("Disk        %s\n", printable(disk.device).c_str());
  std::printf("Size        %s\n", sizeText(disk.size).c_str());
  std::printf("Block size  %llu bytes\n", static_cast<unsigned long long>(disk.blockSize));
  std::printf("MBR         %s\n", mbrSummary(disk).c_str());
  if (disk.header) {
    std::printf("GPT         %u entries, usable LBA %llu to %llu, disk GUID %s\n", disk.header->number_of_entries,
                static_cast<unsigned long long>(disk.header->first_usable_lba),
                static_cast<unsigned long long>(disk.header->last_usable_lba),
                guidText(disk.header->disk_guid).c_str());
  } else {
    std::printf("GPT         none\n");
  }
  for (const GPTFinding& finding : disk.damage) std::printf("GPT damaged: %s\n", printable(finding.text).c_str());
  if (hasSlots(disk)) printMBR(disk);
  if (disk.header) printGPT(disk);
}

struct ShowOptions {
  std::string disk;
  bool json = false;
};

}  // namespace

void addShowCommand(Command& top, int& status) {
  const auto options = std::make_shared<ShowOptions>();
  Command command = top.addCommand("show", "Show a disk's MBR and GPT and how the two agree");
  command.addOption("DISK", options->disk, "Disk or disk-image file").completes(ValueKind::disk).required();
  command.addFlag("--json", options->json, "Print JSON");
  command.setExamples({"vorlix show /dev/sda", "vorlix show mac.img --json"});
  command.setAction([options, &status] {
    const DiskTables disk = readTables(options->disk);
    options->json ? printJson(disk) : printText(disk);
    status = kDone;
  });
}

}  // namespace vorlix::tool
