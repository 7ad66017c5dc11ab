// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/DiskChange.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

#include "Arbitration.h"
#include "Backup.h"
#include "Commands.h"
#include "Complaint.h"
#include "DeviceChanges.h"
#include "DiskTables.h"
#include "Failure.h"
#include "Files.h"
#include "NewFile.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr uint64_t kBootCodeOffset = 84;  // an NTFS volume's parameters end here
constexpr size_t kBootArea = 8192;
constexpr size_t kSavedSize = kBootArea - kBootCodeOffset;

constexpr size_t kSectorSize = 512;
constexpr size_t kBootCodeSize = 446;

struct SaveOptions {
  std::string device;
  std::string file;
  bool force = false;
};

// Says what speaks against a command, unless the user has said that it is meant.
void object(bool force, const std::string& subject, const std::string& reason) {
  if (!force) throw Failure(subject, reason + " (--force takes it all the same)");
  complain(subject + ": warning: " + reason);
}

bool hasSignature(const ByteVector& sector) {
  return sector[510] == 0x55 && sector[511] == 0xAA;
}

Sector firstSector(const ByteVector& bytes) {
  Sector sector;
  std::copy_n(bytes.begin(), sector.size(), sector.begin());
  return sector;
}

// Four slots as partitioning tools write them, one of them in use. A volume's boot sector has code or text there.
bool hasSlots(const ByteVector& sector) {
  bool isAnyUsed = false;
  for (size_t slot = kBootCodeSize; slot < kBootCodeSize + 64; slot += 16) {
    if ((sector[slot] & 0x7F) != 0) return false;
    isAnyUsed = isAnyUsed || sector[slot + 4] != 0;
  }
  return isAnyUsed;
}

// Whether a device begins with a partition table, of either kind, and so holds volumes and is none itself.
bool hasPartitionTable(const ByteVector& bootArea) {
  static constexpr char kGPT[] = "EFI PART";
  for (const size_t blockSize : {size_t{512}, size_t{4096}}) {
    if (std::equal(kGPT, kGPT + 8, bootArea.begin() + static_cast<std::ptrdiff_t>(blockSize))) return true;
  }
  const BootSectorKind kind = kindOf(firstSector(bootArea));
  const bool isVolume = kind == BootSectorKind::ntfs || kind == BootSectorKind::fat;
  return !isVolume && hasSignature(bootArea) && hasSlots(bootArea);
}

void saveVBR(const SaveOptions& options) {
  refuseExisting(options.file);
  const auto handle = openToLook(options.device);
  const ByteVector bootArea = readDevice(*handle, options.device, 0, kBootArea);
  if (hasPartitionTable(bootArea)) {
    object(options.force, options.device, "it begins with a partition table, so it is a disk and no volume");
  }
  saveNewFile(options.file, {bootArea.begin() + kBootCodeOffset, bootArea.end()});
  std::printf("Saved      bytes 84 to 8191 of %s in %s\n", printable(options.device).c_str(),
              printable(options.file).c_str());
}

void saveBootCode(const SaveOptions& options) {
  refuseExisting(options.file);
  const auto handle = openToLook(options.device, DeviceLock::shared);
  const ByteVector bootCode = readDevice(*handle, options.device, 0, kBootCodeSize);
  if (namesOf(options.device).isSlice()) {
    object(options.force, options.device, "it is a slice; the boot code of a disk stands in the disk's first sector");
  }
  saveNewFile(options.file, bootCode);
  std::printf("Saved      the boot code (446 bytes) of %s in %s\n", printable(options.device).c_str(),
              printable(options.file).c_str());
}

struct RestoreOptions {
  std::string file;
  std::string device;
  bool dryRun = false;
  bool json = false;
  bool force = false;
  std::shared_ptr<BackupChoice> backup;
};

// Whether what a file holds can start a volume. Boot records of different systems have no text or code in common, but
// all have code in the first sector and the signature that a BIOS asks for.
void checkSaved(const RestoreOptions& options, const ByteVector& saved) {
  if (saved.size() != kSavedSize) {
    throw Failure(options.file, "has " + std::to_string(saved.size()) + " bytes, a saved boot record has 8108");
  }
  ByteVector area(kBootCodeOffset);
  area.insert(area.end(), saved.begin(), saved.end());
  const auto code = area.begin() + kBootCodeOffset;
  if (!hasSignature(area)) {
    object(options.force, options.file, "is no boot record: it lacks the signature 55 AA, at its byte 426");
  } else if (std::all_of(code, area.begin() + 510, [](uint8_t byte) { return byte == 0; })) {
    object(options.force, options.file, "is no boot record: its first sector has no code");
  }
}

// The boot area of an NTFS volume. On FAT and exFAT these bytes hold parameters and the second boot sector.
ByteVector bootAreaOf(DeviceHandle& handle, const std::string& device) {
  ByteVector area = readDevice(handle, device, 0, kBootArea);
  if (kindOf(firstSector(area)) != BootSectorKind::ntfs) {
    throw Failure(device, "its first sector is not an NTFS boot sector");
  }
  return area;
}

DiskChange planRestore(const RestoreOptions& options, const std::shared_ptr<DeviceHandle>& handle,
                       const ByteVector& saved) {
  const ByteVector before = bootAreaOf(*handle, options.device);
  ByteVector after = before;
  std::copy(saved.begin(), saved.end(), after.begin() + kBootCodeOffset);
  return {"boot record of " + options.device,
          {{options.device, handle, {{0, before, after, "boot code of the volume"}}}}};
}

void printDryRun(const RestoreOptions& options, const DiskChange& change) {
  const ByteChange& run = change.devices.front().bytes.front();
  if (options.json) {
    Json::object({{"version", kJsonVersion},
                  {"device", options.device},
                  {"changeNeeded", !change.empty()},
                  {"changes", differenceJson(run.before, run.after, run.offset)}})
        .print();
    return;
  }
  std::printf("Dry run: nothing is opened for writing.\n\n%s, bytes 84 to 8191:\n%s", printable(options.device).c_str(),
              change.empty() ? "  no byte would change\n" : differenceText(run.before, run.after, 0).c_str());
}

// NTFS keeps a copy of its first sector in the last one of its partition, for repair by hand; nothing starts from it.
bool hasSecondCopy(DeviceHandle& handle, const ByteVector& area) {
  const uint64_t size = handle.size().value_or(0);
  if (size < 2 * kBootArea) return false;
  ByteVector last(kSectorSize);
  if (handle.readAt(last.data(), last.size(), size - last.size()) != static_cast<ssize_t>(last.size())) return false;
  return std::equal(last.begin(), last.end(), area.begin());
}

void restoreVBR(const RestoreOptions& options, const ByteVector& saved) {
  const std::optional<DiskTables> disk = tablesAround(options.device);
  if (disk) requireSoundGPT(*disk, options.force);
  const DiskTables* const around = disk ? &*disk : nullptr;
  static_cast<void>(
      bootAreaOf(*openToLook(options.device, DeviceLock::none, around), options.device));  // before unmounting
  if (mountPointOf(options.device)) {
    if (const auto refusal = tryUnmount(options.device)) {
      throw Failure(options.device, "mounted and cannot be unmounted: " + reasonText(*refusal));
    }
  }
  const auto handle = openToChange(options.device, around);
  const DiskChange change = planRestore(options, handle, saved);
  const ByteVector area = bootAreaOf(*handle, options.device);
  const bool hadCopy = hasSecondCopy(*handle, area);
  const std::string kept = applyOrFail(change, changeBackup(*options.backup));
  std::printf("Restored   bytes 84 to 8191 of %s, read back; bytes 0 to 83 are its own\n",
              printable(options.device).c_str());
  const size_t inFirstSector = kSectorSize - kBootCodeOffset;
  if (hadCopy && !std::equal(saved.begin(), saved.begin() + inFirstSector, area.begin() + kBootCodeOffset)) {
    std::printf("Left       the copy of the first sector in the last one, which is no copy any more\n");
  }
  printUndo(kept);
}

// What the commands that save to a file differ in.
struct Saving {
  const char* device;
  ValueKind kind;
  const char* deviceHelp;
  const char* forceHelp;
  void (*save)(const SaveOptions& options);
};

void setUpSaving(Command& command, const Saving& saving, int& status) {
  const auto options = std::make_shared<SaveOptions>();
  command.addOption(saving.device, options->device, saving.deviceHelp).completes(saving.kind).required();
  command.addOption("FILE", options->file, "File to make; one that exists is refused")
      .completes(ValueKind::file)
      .required();
  command.addFlag("--force", options->force, saving.forceHelp);
  command.setAction([options, save = saving.save, &status] {
    save(*options);
    status = kDone;
  });
}

}  // namespace

void addBootRecordCommands(Command& top, int& status) {
  Command vbr = top.addCommand("vbr", "Save or restore the boot record of a volume");
  vbr.requireCommand();

  vbr.setExamples({"vorlix vbr save mac.imgs3 saved.vbr", "vorlix vbr restore saved.vbr mac.imgs3 --dry-run"});
  Command save = vbr.addCommand("save", "Save bytes 84 to 8191 of a volume");
  setUpSaving(save, {"DEVICE", ValueKind::device, "The volume", "Save of a disk with a partition table, too", saveVBR},
              status);
  save.setExamples({"vorlix vbr save mac.imgs3 saved.vbr"});

  const auto restoring = std::make_shared<RestoreOptions>();
  Command restore = vbr.addCommand("restore", "Put a saved boot record on an NTFS volume");
  restore.addOption("FILE", restoring->file, "The saved boot record, 8108 bytes").completes(ValueKind::file).required();
  restore.addOption("DEVICE", restoring->device, "The volume; it is unmounted first")
      .completes(ValueKind::device)
      .required();
  const Option dryRun =
      restore.addFlag("--dry-run", restoring->dryRun, "Show the bytes that would change; open nothing for writing");
  restore.addFlag("--json", restoring->json, "Show them as JSON").needs(dryRun);
  restoring->backup = addBackupOptions(restore);
  restore.addFlag("--force", restoring->force, "Take a file that does not look like a boot record, and a damaged GPT");
  restore.setExamples({"vorlix vbr restore saved.vbr mac.imgs3 --dry-run"});
  restore.setAction([restoring, &status] {
    const ByteVector saved = readFile(restoring->file, kBootArea);
    checkSaved(*restoring, saved);
    status = kDone;
    if (!restoring->dryRun) {
      restoreVBR(*restoring, saved);
      return;
    }
    const DiskChange change = planRestore(*restoring, openToLook(restoring->device), saved);
    printDryRun(*restoring, change);
    if (!change.empty()) status = kChangeNeeded;
  });

  Command bootCode = top.addCommand("boot-code", "Save the MBR boot code of a disk");
  bootCode.requireCommand();
  bootCode.setExamples({"vorlix boot-code save /dev/sda saved.mbr"});
  Command saveCode = bootCode.addCommand("save", "Save bytes 0 to 445 of sector 0");
  setUpSaving(saveCode, {"DISK", ValueKind::disk, "The whole disk", "Save of a slice, too", saveBootCode}, status);
  saveCode.setExamples({"vorlix boot-code save /dev/sda saved.mbr"});
}

}  // namespace vorlix::tool
