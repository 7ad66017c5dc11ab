// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/StoreSlots.h>
#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <cstring>

#include "Findings.h"

namespace vorlix {
namespace {

using Sight = FileFact::Sight;

bool hasGUID(const std::array<uint8_t, 16>& found, const uint8_t* guid) {
  return std::equal(found.begin(), found.end(), guid);
}

// Where a store's devices are: on this disk, and in the partition that is to start.
struct DeviceCounts {
  size_t here = 0;
  size_t elsewhere = 0;
};

bool isOnDisk(const StartFacts& facts, const StoreDevice& device) {
  if (!device.isMBR) return hasGUID(device.disk, facts.gpt.header.disk_guid);
  return std::equal(device.disk.begin(), device.disk.begin() + 4, facts.sector0.begin() + kDiskSignature);
}

bool isPartition(const StartFacts& facts, const StoreDevice& device) {
  const GPTEntry& entry = facts.gpt.entries[facts.partition - 1];
  if (!device.isMBR) return hasGUID(device.partition, entry.unique_guid);
  return littleEndian(device.partition, 0, 8) == entry.first_lba * facts.blockSize;
}

DeviceCounts countDevices(const StartFacts& facts, const std::vector<StoreDevice>& devices) {
  DeviceCounts counts;
  for (const StoreDevice& device : devices) {
    if (!isOnDisk(facts, device)) {
      ++counts.elsewhere;
    } else if (isPartition(facts, device)) {
      ++counts.here;
    }
  }
  return counts;
}

std::string storeCommand(const StartFindings& findings) {
  const uint32_t partition = findings.facts().partition;
  return "vorlix bcd " + findings.diskWord() + " --partition " + (partition != 0 ? std::to_string(partition) : "N") +
         " --template FILE --mode MODE";
}

// What is missing is made from the Windows on the volume, if it has all files for it.
std::string efiFilesCommand(const StartFindings& findings, const std::string& otherwise) {
  const StartFacts& facts = findings.facts();
  if (!facts.volume || !facts.volume->suppliesEFIFiles || facts.efi.partition != 1) return otherwise;
  return "vorlix bcd " + findings.diskWord() + " --partition " + std::to_string(facts.partition) + " --from-windows";
}

constexpr const char* kManager = "EFI/Microsoft/Boot/bootmgfw.efi";
constexpr const char* kFallback = "EFI/Boot/bootx64.efi";

// A start needs the boot manager, and an entry of the firmware that names it or the fallback. The firmware's entries
// are not on the disk.
void checkEFIFiles(StartFindings& findings, bool judged) {
  const EFIVolume& efi = findings.facts().efi;
  const std::string without = efi.name + " has no ";
  if (efi.bootManager.sight == Sight::unseen) {
    findings.unseen("efi-files", std::string(kManager) + ": " + efi.bootManager.reason);
  } else if (efi.bootManager.sight == Sight::there) {
    findings.ok("efi-files", std::string(kManager) + " is on " + efi.name);
  } else if (judged) {
    findings.fault("efi-files", "efi-manager-missing", without + kManager,
                   "EFI firmware starts this program, which starts Windows",
                   efiFilesCommand(findings, "bcdboot C:\\Windows /s S: /f UEFI in Windows"));
  }
  if (efi.fallback.sight == Sight::unseen) {
    findings.unseen("efi-files", std::string(kFallback) + ": " + efi.fallback.reason);
  } else if (efi.fallback.sight == Sight::there) {
    findings.ok("efi-files", std::string(kFallback) + " is on " + efi.name);
  } else if (judged) {
    findings.note("efi-files", "efi-fallback-missing",
                  without + kFallback + ", which firmware without an entry for Windows starts");
  }
}

bool isSeen(const EFIVolume& efi) {
  return efi.bootManager.sight != Sight::unseen || efi.fallback.sight != Sight::unseen ||
         efi.store.sight != Sight::unseen;
}

}  // namespace

void checkStore(StartFindings& findings, const char* area, const std::string& prefix, const std::vector<uint8_t>& store,
                const std::string& command) {
  const StartFacts& facts = findings.facts();
  if (const auto reason = whyNoHive(store)) {
    findings.fault(area, prefix + "store-damaged", "the boot configuration store " + *reason,
                   "the boot manager cannot read it", command);
    return;
  }
  const std::vector<StoreDevice> devices = storeDevices(store);
  if (devices.empty()) {
    findings.fault(area, prefix + "store-empty", "the boot configuration store names no partition",
                   "the boot manager finds nothing to start in it", command);
    return;
  }
  const bool isKnown = facts.partition >= 1 && facts.partition <= facts.gpt.entries.size();
  if (!isKnown) {
    findings.unseen(area, "which partition the store should name: " + facts.whyNoVolume);
    return;
  }
  const DeviceCounts counts = countDevices(facts, devices);
  const std::string total = std::to_string(devices.size());
  if (counts.elsewhere == devices.size()) {
    findings.fault(area, prefix + "store-disk", "none of the " + total + " places in the store names this disk",
                   "the boot manager looks for the partition on another disk", command);
  } else if (counts.here == 0) {
    findings.fault(area, prefix + "store-partition",
                   "none of the " + total + " places in the store names GPT entry " + std::to_string(facts.partition),
                   "the boot manager starts another partition or finds none", command);
  } else {
    findings.ok(area, "names this disk and GPT entry " + std::to_string(facts.partition));
    if (counts.elsewhere > 0) {
      findings.note(area, (prefix + "store-other-disk").c_str(),
                    std::to_string(counts.elsewhere) + " of the " + total + " places in the store name another disk");
    }
  }
}

void checkEFIVolume(StartFindings& findings, bool judged) {
  const EFIVolume& efi = findings.facts().efi;
  if (efi.partition == 0) {
    if (!judged) return;
    findings.fault("efi-files", "efi-partition-missing", "the GPT has no EFI System Partition",
                   "EFI firmware looks for boot files there", "gdisk " + findings.diskWord());
    return;
  }
  if (!judged && isSeen(efi) && efi.store.sight == Sight::missing) {
    findings.ok("efi-files", efi.name + " has no boot configuration store: not set up for a start by EFI");
    return;
  }
  if (!isSeen(efi)) {
    findings.unseen("efi-files", "files and store of a start by EFI: " + efi.bootManager.reason);
    return;
  }
  checkEFIFiles(findings, judged);
  if (efi.store.sight == Sight::there) {
    checkStore(findings, "store", "", efi.store.bytes, storeCommand(findings));
  } else if (efi.store.sight == Sight::unseen) {
    findings.unseen("store", efi.store.reason);
  } else if (judged) {
    findings.fault("store", "store-missing", efi.name + " has no EFI/Microsoft/Boot/BCD",
                   "the boot manager reads from it what to start", efiFilesCommand(findings, storeCommand(findings)));
  }
}

}  // namespace vorlix
