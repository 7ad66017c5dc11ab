// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "Findings.h"

namespace vorlix {
namespace {

constexpr const char* kBasicData = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";
constexpr size_t kVolumeSignature = 510;

const GPTEntry* entryOf(const StartFacts& facts) {
  if (facts.partition == 0 || facts.partition > facts.gpt.entries.size()) return nullptr;
  const GPTEntry& entry = facts.gpt.entries[facts.partition - 1];
  return isUsed(entry) ? &entry : nullptr;
}

// @return whether the volume is where something can be started from.
bool checkPlace(StartFindings& findings, bool legacy) {
  const StartFacts& facts = findings.facts();
  const GPTEntry* const entry = entryOf(facts);
  if (entry == nullptr) return true;
  const std::string name = "GPT entry " + std::to_string(facts.partition);
  const std::string place = name + " starts at sector " + std::to_string(entry->first_lba);
  if (facts.blocks != 0 && entry->last_lba >= facts.blocks) {
    const bool isGone = entry->first_lba >= facts.blocks;
    findings.fault("volume", "volume-beyond-disk",
                   (isGone ? place : name + " ends at sector " + std::to_string(entry->last_lba)) + ", but " +
                       facts.disk + " has only " + std::to_string(facts.blocks) + ": it is truncated",
                   kWhyTruncated, kCopyAgain);
    return false;
  }
  if (legacy && facts.partition > kSlotCount) {
    findings.fault("volume", "volume-without-slot", "GPT entry " + std::to_string(facts.partition) + " has no MBR slot",
                   "a BIOS starts one of the four slots, which mirror entries 1 to 4",
                   "sgdisk --transpose=" + std::to_string(facts.partition) + ":N " + findings.diskWord());
    return false;
  }
  if (legacy && entry->first_lba > std::numeric_limits<uint32_t>::max()) {
    findings.fault("volume", "volume-beyond-32-bits", place + ", beyond the 32 bits of a boot sector's field",
                   "neither an MBR slot nor a boot sector can hold the number", "gdisk " + findings.diskWord());
    return false;
  }
  return true;
}

// @return whether the first sector is a boot sector that the other checks can examine.
bool checkKind(StartFindings& findings, const StartVolume& volume) {
  const GPTEntry* const entry = entryOf(findings.facts());
  const std::string command = "vorlix show " + findings.diskWord();
  if (entry != nullptr && std::strcmp(entry->guid_text, kEFISystemGUID) == 0) {
    findings.fault("volume", "volume-type", volume.name + " is the EFI System Partition", "it holds no Windows",
                   command);
    return false;
  }
  if (entry != nullptr && std::strcmp(entry->guid_text, kBasicData) != 0) {
    findings.fault("volume", "volume-type",
                   "the GPT type of " + volume.name + " is " + entry->guid_text + ", not Microsoft basic data",
                   "Windows gives such a partition no letter and does not find itself on it",
                   "sgdisk --typecode=" + std::to_string(findings.facts().partition) + ":0700 " + findings.diskWord());
    return false;
  }
  const BootSectorKind kind = kindOf(volume.bootSector);
  if (kind == BootSectorKind::ntfs || kind == BootSectorKind::fat) return true;
  const bool isBlank = kind == BootSectorKind::empty;
  findings.fault(
      "volume", isBlank ? "volume-blank" : "volume-not-windows",
      volume.name + (isBlank ? " is blank, its" : " its") + " first sector is not an NTFS or FAT boot sector",
      "Windows starts from NTFS or FAT only", command);
  return false;
}

std::string restoreCommand(const StartVolume& volume) {
  return "vorlix vbr restore FILE " + commandWord(volume.name);
}

void checkBootSectorFields(StartFindings& findings, const StartVolume& volume) {
  const GPTEntry* const entry = entryOf(findings.facts());
  if (littleEndian(volume.bootSector, kVolumeSignature, 2) != kMBRSignature) {
    findings.fault("boot-sector", "boot-sector-signature",
                   "the boot sector of " + volume.name + " does not end in 55 AA",
                   "boot code and Windows take it for no boot sector", restoreCommand(volume));
  }
  if (entry == nullptr) return;
  const uint32_t field = hiddenSectors(volume.bootSector);
  if (field == entry->first_lba) {
    findings.ok("boot-sector", "hidden sectors " + std::to_string(field) + ", the first LBA of " + volume.name);
  } else {
    findings.fault("boot-sector", "hidden-sectors",
                   "hidden sectors " + std::to_string(field) + "; the first LBA is " +
                       std::to_string(entry->first_lba) + " on " + volume.name,
                   "the volume's boot code adds this number to find its files on the disk", findings.hybridCommand());
  }
}

// A volume that ends before its partition has a second place for the copy; one that is right will do.
void checkSecondCopy(StartFindings& findings, const StartVolume& volume) {
  if (volume.seconds.empty()) return;
  bool isCopyButOld = false;
  for (const StartVolume::Second& second : volume.seconds) {
    if (second.sector == volume.bootSector) {
      findings.ok("second-boot-sector", "equals the boot sector, at byte " + std::to_string(second.offset));
      return;
    }
    isCopyButOld = isCopyButOld || isCopyButForPatch(volume.bootSector, second.sector);
  }
  const uint64_t place = volume.seconds.front().offset;
  findings.fault("second-boot-sector", isCopyButOld ? "second-differs" : "second-lost",
                 "differs from the boot sector, at byte " + std::to_string(place) +
                     (isCopyButOld ? "" : ", in more than hidden sectors and serial"),
                 "repairs take the copy for the boot sector and bring back what it says",
                 isCopyButOld ? findings.hybridCommand()
                              : "dd if=" + commandWord(volume.name) + " of=" + commandWord(volume.name) +
                                    " bs=512 count=1 seek=" + std::to_string(place / kSectorSize) + " conv=notrunc");
}

void checkVolumeCode(StartFindings& findings, const StartVolume& volume) {
  const std::string where = "the boot sector of " + volume.name;
  if (lacksBootCode(volume.bootSector)) {
    findings.fault("volume-code", "volume-code-missing", "nothing but zeros in " + where,
                   "the disk's boot code jumps to these bytes, which load the boot manager", restoreCommand(volume));
  } else if (onlyPrintsMessage(volume.bootSector)) {
    const std::string tool = "bootsect /nt60 C: in Windows' set-up";
    findings.fault("volume-code", "volume-code-message", "the code in " + where + " only prints a message",
                   "the tool that made the file system put it there, and it does not load the boot manager",
                   kindOf(volume.bootSector) == BootSectorKind::ntfs ? restoreCommand(volume) + ", or " + tool : tool);
  } else {
    findings.ok("volume-code", "there is some in " + where);
  }
}

constexpr const char* kWhyClean =
    "Windows checks and repairs such a volume before it starts, or goes on with what it had in memory";

// What nobody looked at, in words; empty if all is known.
const char* unseenState(const StartVolume& volume) {
  if (volume.doubt || (volume.dirty && volume.hibernated)) return "";
  if (volume.dirty) return "a hibernated Windows";
  return volume.hibernated ? "a dirty volume" : "a dirty or hibernated volume";
}

void checkState(StartFindings& findings, const StartVolume& volume) {
  const std::string name = commandWord(volume.name);
  const bool isDirty = volume.dirty.value_or(false);
  const bool isHibernated = volume.hibernated.value_or(false);
  if (isDirty) {
    findings.fault("volume-state", "volume-dirty", volume.name + " is marked as not cleanly unmounted",
                   "Windows checks and repairs the volume before it starts, and other systems mount it read-only",
                   "chkdsk /f in Windows, or ntfsfix -d " + name);
  }
  if (isHibernated) {
    findings.fault("volume-state", "volume-hibernated", volume.name + " holds a hibernated Windows",
                   "it goes on with what it had in memory, which no longer fits a disk that was changed",
                   "shutdown /s /f /t 0 in that Windows");
  }
  const bool isUnclean = !isDirty && !isHibernated && !volume.doubt.value_or("").empty();
  if (isUnclean) {
    findings.fault("volume-state", "volume-unclean", volume.name + ": " + *volume.doubt, kWhyClean,
                   "chkdsk /f in Windows, then shutdown /s /f /t 0");
  }
  const std::string unseen = unseenState(volume);
  if (!unseen.empty()) {
    findings.unseen("volume-state", unseen + ": " + volume.stateReason);
  } else if (!isDirty && !isHibernated && !isUnclean) {
    findings.ok("volume-state", volume.name + " was cleanly unmounted and holds no hibernated Windows");
  }
}

// The Windows on the volume has all files for it, but a store of its own needs a disk signature, too.
std::string bootFilesCommand(const StartFindings& findings, const StartVolume& volume) {
  const StartFacts& facts = findings.facts();
  const bool hasSignature = littleEndian(facts.sector0, kDiskSignature, 4) != 0;
  if (!volume.suppliesBootFiles || !hasSignature || facts.partition == 0) {
    const std::string name = commandWord(volume.name);
    return "vorlix mount " + name + " && vorlix legacy-boot " + name + " --bcd FILE";
  }
  return "vorlix bcd " + findings.diskWord() + " --partition " + std::to_string(facts.partition) +
         " --from-windows --firmware bios";
}

void checkBootFiles(StartFindings& findings, const StartVolume& volume) {
  const std::string command = bootFilesCommand(findings, volume);
  switch (volume.bootManager.sight) {
    case FileFact::Sight::unseen:
      findings.unseen("boot-files", "bootmgr and boot/BCD: " + volume.bootManager.reason);
      return;
    case FileFact::Sight::missing:
      findings.fault("boot-files", "boot-manager-missing", volume.name + " has no bootmgr in its root",
                     "the volume's boot code loads this file", command);
      break;
    case FileFact::Sight::there:
      findings.ok("boot-files", "bootmgr is on " + volume.name);
  }
  switch (volume.legacyStore.sight) {
    case FileFact::Sight::unseen:
      findings.unseen("legacy-store", "boot/BCD: " + volume.legacyStore.reason);
      break;
    case FileFact::Sight::missing:
      findings.fault("legacy-store", "legacy-store-missing", volume.name + " has no boot/BCD",
                     "the boot manager reads from it what to start", command);
      break;
    case FileFact::Sight::there:
      checkStore(findings, "legacy-store", "legacy-", volume.legacyStore.bytes, command);
  }
}

}  // namespace

void checkStartVolume(StartFindings& findings, bool legacy) {
  const StartFacts& facts = findings.facts();
  if (!checkPlace(findings, legacy)) return;
  if (!facts.volume) {
    findings.unseen("volume", facts.whyNoVolume);
    return;
  }
  const StartVolume& volume = *facts.volume;
  if (!checkKind(findings, volume)) return;
  if (legacy) {
    checkBootSectorFields(findings, volume);
    checkSecondCopy(findings, volume);
    checkVolumeCode(findings, volume);
    checkBootFiles(findings, volume);
  }
  checkState(findings, volume);
}

}  // namespace vorlix
