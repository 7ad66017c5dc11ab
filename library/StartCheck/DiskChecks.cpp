// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/OwnBootCode.h>
#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <limits>

#include "Findings.h"

namespace vorlix {
namespace {

constexpr const char* kWhyGPT =
    "EFI firmware and systems take partitions from whichever copy of the table they trust, so they may find another "
    "one, or none";
constexpr const char* kWhySlots = "a BIOS and its boot code know only the four slots of the MBR";
constexpr const char* kWhyActive = "boot code starts the one slot that is active; with none or several it stops";

// sgdisk repairs what one good copy of the table tells. The rest takes a decision about partitions.
std::string gptCommand(const std::string& code, const std::string& disk) {
  const bool isRepaired = code.starts_with("primary-") || code.starts_with("backup-") || code.starts_with("header-") ||
                          code == "entries-checksum";
  return (isRepaired ? "sgdisk -e " : "gdisk ") + disk;
}

bool hasFinding(const StartFacts& facts, const std::string& code) {
  const auto& all = facts.gpt.findings;
  return std::any_of(all.begin(), all.end(), [&](const GPTFinding& one) { return one.code == code; });
}

std::string gptCode(const std::string& code) {
  return code.starts_with("gpt-") ? code : "gpt-" + code;
}

// The slots that a legacy start of the partition needs.
PartitionTable wantedTable(const StartFacts& facts, uint32_t active) {
  PartitionTable table = hybridTable(facts.gpt.entries, facts.partition != 0 ? facts.partition : active);
  if (facts.type != 0 && facts.partition >= 1 && facts.partition <= kSlotCount) {
    table.parts[facts.partition - 1].type = facts.type;
  }
  return table;
}

void checkSlots(StartFindings& findings, uint32_t active) {
  const StartFacts& facts = findings.facts();
  if (!facts.gpt.headerLBA) return;
  if (const auto obstacle = slotObstacle(facts.gpt.entries)) {
    findings.fault("mbr", obstacle->code, "there can be no hybrid MBR: " + obstacle->text,
                   "a slot would describe another partition, which a system may write to",
                   "gdisk " + findings.diskWord());
    return;
  }
  const PartitionTable wanted = wantedTable(facts, active);
  if (wanted.parts[0].type != kProtectiveType) {
    findings.fault(
        "mbr", "first-entry-not-efi",
        "there can be no hybrid MBR: GPT entry 1 is not the EFI System Partition, whose slot protects the GPT",
        kWhySlots, "gdisk " + findings.diskWord());
    return;
  }
  const Sector sector = makeSector0(Bytes(facts.sector0).first(kBootCodeSize), wanted.parts);
  std::string slots;
  for (const uint32_t slot : compareSector0(facts.sector0, sector).slots) {
    slots += (slots.empty() ? "" : ", ") + std::to_string(slot);
  }
  if (slots.empty()) {
    findings.ok("mbr", "equals the hybrid MBR that the GPT asks for");
  } else {
    findings.fault("mbr", "mbr-differs", "differs from the hybrid MBR that the GPT asks for in slot " + slots,
                   kWhySlots, findings.hybridCommand());
  }
}

void checkActiveSlot(StartFindings& findings) {
  const StartFacts& facts = findings.facts();
  std::string slots;
  size_t count = 0;
  for (size_t i = 0; i < kSlotCount; ++i) {
    if (facts.sector0[kBootCodeSize + i * kSlotSize] != kActiveFlag) continue;
    slots += (slots.empty() ? "" : ", ") + std::to_string(i + 1);
    ++count;
  }
  const std::string wanted = std::to_string(facts.partition);
  if (count == 0) {
    findings.fault("active-slot", "active-none", "none is active", kWhyActive, findings.hybridCommand());
  } else if (count > 1) {
    findings.fault("active-slot", "active-several",
                   "slot " + slots + (facts.partition != 0 ? " instead of slot " + wanted + " alone" : " at once"),
                   kWhyActive, findings.hybridCommand());
  } else if (facts.partition != 0 && slots != wanted) {
    findings.fault("active-slot", "active-other", "slot " + slots + " instead of slot " + wanted + " alone",
                   "boot code starts another partition", findings.hybridCommand());
  } else {
    findings.ok("active-slot", "slot " + slots + " alone");
  }
}

void checkDiskBootCode(StartFindings& findings) {
  const StartFacts& facts = findings.facts();
  if (lacksDiskBootCode(facts.sector0)) {
    findings.fault("boot-code", "boot-code-missing", "nothing but zeros in sector 0 of " + facts.disk,
                   "the BIOS runs these bytes to start the disk", findings.hybridCommand());
    return;
  }
  const DiskBootCode own = ownBootCode();
  const bool isOwn = std::equal(own.begin(), own.end(), facts.sector0.begin());
  findings.ok("boot-code", "there is some in sector 0 of " + facts.disk + (isOwn ? ", our own" : ""));
}

}  // namespace

void checkStartGPT(StartFindings& findings) {
  const StartFacts& facts = findings.facts();
  const bool isTruncated = hasFinding(facts, "disk-truncated");
  const bool isCutOff = isTruncated && hasFinding(facts, "entry-beyond-disk");
  for (const GPTFinding& damage : facts.gpt.findings) {
    const bool isAboutTheEnd =
        damage.code == "disk-truncated" || damage.code == "backup-missing" || damage.code.ends_with("-beyond-disk");
    if (isCutOff && isAboutTheEnd) {
      findings.fault("gpt", gptCode(damage.code), damage.text, kWhyTruncated, kCopyAgain);
      continue;
    }
    // sgdisk refuses some truncated disks; gdisk asks.
    const std::string command =
        isTruncated && isAboutTheEnd ? "gdisk " + findings.diskWord() : gptCommand(damage.code, findings.diskWord());
    findings.fault("gpt", gptCode(damage.code), damage.text, kWhyGPT, command);
  }
  if (facts.gpt.findings.empty() && facts.gpt.headerLBA) findings.ok("gpt", "both copies are sound and equal");
}

void checkLegacyMBR(StartFindings& findings) {
  switch (mbrKindOf(findings.facts().sector0)) {
    case MBRKind::none:
      findings.fault("mbr", "mbr-missing", "sector 0 has no 55 AA signature", "a BIOS starts no disk without it",
                     findings.hybridCommand());
      break;
    case MBRKind::volume:
      findings.fault("mbr", "mbr-is-volume", "sector 0 is the boot sector of a volume",
                     "its code starts a volume of the whole disk, no slot",
                     findings.hybridCommand() + " --boot-code FILE");
      break;
    default: {
      PartitionTable table = {};
      uint32_t active = 0;
      decodeMBR(findings.facts().sector0, table, &active);
      checkSlots(findings, active);
    }
  }
  checkActiveSlot(findings);
  checkDiskBootCode(findings);
}

void checkProtectiveMBR(StartFindings& findings) {
  const MBRKind kind = mbrKindOf(findings.facts().sector0);
  if (kind == MBRKind::protectsOnly || kind == MBRKind::hybrid) {
    findings.ok("mbr", "protects the GPT");
  } else {
    findings.fault("mbr", "mbr-unprotected", "sector 0 has no slot of type EE",
                   "EFI firmware and systems take a GPT for valid only behind such a slot",
                   "vorlix hybrid " + findings.diskWord() + " --guard");
  }
}

std::optional<SlotObstacle> slotObstacle(std::span<const GPTEntry> entries) {
  constexpr uint64_t kLargest = std::numeric_limits<uint32_t>::max();
  for (size_t i = 0; i < std::min(entries.size(), kSlotCount); ++i) {
    const GPTEntry& entry = entries[i];
    if (!isUsed(entry) || (entry.first_lba <= kLargest && entry.last_lba <= kLargest)) continue;
    return SlotObstacle{"phantom-slot",
                        "GPT entry " + std::to_string(i + 1) + ", sectors " + std::to_string(entry.first_lba) + " to " +
                            std::to_string(entry.last_lba) +
                            ", lies beyond the 32 bits of an MBR slot, which would show a place in another partition"};
  }
  for (const auto& pair : overlappingEntries(entries)) {
    if (pair.first > kSlotCount) continue;  // the lower number; neither has a slot
    return SlotObstacle{"slots-overlap", "GPT entries " + std::to_string(pair.first) + " and " +
                                             std::to_string(pair.second) + " overlap"};
  }
  return std::nullopt;
}

}  // namespace vorlix
