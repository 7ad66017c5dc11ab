// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "Arbitration.h"
#include "Backup.h"
#include "Commands.h"
#include "DiskTables.h"
#include "Failure.h"
#include "Files.h"
#include "LibraryLog.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr uint64_t kBootCodeOffset = 84;  // an NTFS volume's parameters end here
constexpr size_t kBootArea = 8192;
constexpr size_t kSavedSize = kBootArea - kBootCodeOffset;

const char* saveReason(int result) {
  switch (result) {
    case -1:
      return "the file exists already, or the device cannot be opened for reading and writing";
    case -2:
      return "the device cannot be positioned";
    case -3:
      return "the device is shorter than the 8192 bytes of a boot area";
    case -4:
      return "the file cannot be made";
    case -5:
      return "the file could not be written whole";
    default:
      return "unknown result";
  }
}

const char* restoreReason(int result) {
  switch (result) {
    case -1:
      return "the saved file does not exist";
    case -2:
      return "the saved file cannot be opened";
    case -3:
      return "the saved file is shorter than 8108 bytes";
    case -5:
      return "the device cannot be opened for writing";
    case -6:
      return "the device cannot be positioned";
    case -7:
      return "the device could not be written whole";
    default:
      return "unknown result";
  }
}

void refuseExisting(const std::string& path) {
  std::error_code error;
  if (std::filesystem::exists(std::filesystem::symlink_status(path, error))) {
    throw Failure(path, "exists already; a saved file is never overwritten");
  }
}

[[noreturn]] void failWithLog(const std::string& subject, const std::string& reason, const LibraryLog& log,
                              const std::string& state) {
  log.print();
  throw Failure(subject, reason, state);
}

struct SaveOptions {
  std::string device;
  std::string file;
};

void saveVBR(const SaveOptions& options) {
  refuseExisting(options.file);
  const ByteVector boot = readDevice(options.device, kBootCodeOffset, kSavedSize);
  const LibraryLog log;
  const int result = write_vbr_to_file(options.device.c_str(), options.file.c_str());
  if (result != 0) failWithLog(options.device, saveReason(result), log, "the device was not written");
  if (readFile(options.file, kBootArea) != boot) {
    throw Failure(options.file, "does not hold what the device holds", "the device was not written");
  }
  std::printf("Saved      bytes 84 to 8191 of %s in %s\n", printable(options.device).c_str(),
              printable(options.file).c_str());
}

// The library ends its process when it cannot open the disk with a shared lock.
void tryToLock(const std::string& disk) {
  if (platform().deviceFile->open(disk, DeviceAccess::readOnly, DeviceLock::shared)) return;
  const int reason = errno;
  if (reason == EWOULDBLOCK) throw Failure(disk, "another process has it for itself");
  throw Failure::ofErrno(disk, reason);
}

void saveBootCode(const SaveOptions& options) {
  refuseExisting(options.file);
  const ByteVector sector = readDevice(options.device, 0, 446);
  tryToLock(options.device);
  const LibraryLog log;
  if (write_mbr_to_file(options.device.c_str(), options.file.c_str()) != 0) {
    failWithLog(options.file, "the boot code could not be saved", log, "the disk was not written");
  }
  if (readFile(options.file, kBootArea) != sector) {
    throw Failure(options.file, "does not hold what the disk holds", "the disk was not written");
  }
  std::printf("Saved      the boot code (446 bytes) of %s in %s\n", printable(options.device).c_str(),
              printable(options.file).c_str());
}

struct RestoreOptions {
  std::string file;
  std::string device;
  bool dryRun = false;
  std::string backupFolder;
};

// Returns whether anything would change or has changed.
bool restoreVBR(const RestoreOptions& options) {
  const ByteVector saved = readFile(options.file, kBootArea);
  if (saved.size() != kSavedSize) {
    throw Failure(options.file, "has " + std::to_string(saved.size()) + " bytes, a saved boot record has 8108");
  }
  const ByteVector before = readDevice(options.device, 0, kBootArea);
  Sector bootSector;
  std::copy_n(before.begin(), bootSector.size(), bootSector.begin());
  if (kindOf(bootSector) != BootSectorKind::ntfs) {
    // On FAT and exFAT these bytes hold parameters and the second boot sector.
    throw Failure(options.device, "its first sector is not an NTFS boot sector");
  }
  ByteVector after = before;
  std::copy(saved.begin(), saved.end(), after.begin() + kBootCodeOffset);
  if (options.dryRun) {
    std::printf("Dry run: nothing is opened for writing.\n\n%s, bytes 84 to 8191:\n%s",
                printable(options.device).c_str(),
                after == before ? "  no byte would change\n" : differenceText(before, after, 0).c_str());
    return after != before;
  }
  if (mountPointOf(options.device)) {
    if (const auto refusal = tryUnmount(options.device)) {
      throw Failure(options.device, "mounted and cannot be unmounted: " + reasonText(*refusal));
    }
  }
  if (!options.backupFolder.empty()) {
    std::printf("Saved      %s\n", printable(saveBytes(options.backupFolder, options.device, 0, before)).c_str());
    std::fflush(stdout);
  }
  const LibraryLog log;
  const int result = restore_vbr_to_device(options.file.c_str(), options.device.c_str());
  const ByteVector now = readDevice(options.device, 0, kBootArea);
  const char* const state = now == before ? "nothing was written" : "part of the boot area was written";
  if (result != 0) failWithLog(options.device, restoreReason(result), log, state);
  if (now != after) failWithLog(options.device, "the boot area is not what it should be", log, state);
  std::printf("Restored   bytes 84 to 8191 of %s, read back; bytes 0 to 83 are its own\n",
              printable(options.device).c_str());
  return true;
}

}  // namespace

void addBootRecordCommands(CLI::App& app, int& status) {
  CLI::App* const vbr = app.add_subcommand("vbr", "Save or restore the boot record of a volume");
  vbr->require_subcommand(1);

  const auto saving = std::make_shared<SaveOptions>();
  CLI::App* const save = vbr->add_subcommand("save", "Save bytes 84 to 8191 of a volume");
  save->add_option("DEVICE", saving->device, "The volume")->required();
  save->add_option("FILE", saving->file, "File to make; one that exists is refused")->required();
  save->callback([saving, &status] {
    saveVBR(*saving);
    status = kDone;
  });

  const auto restoring = std::make_shared<RestoreOptions>();
  CLI::App* const restore = vbr->add_subcommand("restore", "Put a saved boot record on an NTFS volume");
  restore->add_option("FILE", restoring->file, "The saved boot record, 8108 bytes")->required();
  restore->add_option("DEVICE", restoring->device, "The volume; it is unmounted first")->required();
  restore->add_flag("--dry-run", restoring->dryRun, "Show the bytes that would change; open nothing for writing");
  restore->add_option("--backup", restoring->backupFolder, "Folder for the boot area as it is now, saved before");
  restore->callback([restoring, &status] {
    const bool changes = restoreVBR(*restoring);
    status = restoring->dryRun && changes ? kChangeNeeded : kDone;
  });

  CLI::App* const bootCode = app.add_subcommand("boot-code", "Save the MBR boot code of a disk");
  bootCode->require_subcommand(1);
  const auto savingCode = std::make_shared<SaveOptions>();
  CLI::App* const saveCode = bootCode->add_subcommand("save", "Save bytes 0 to 445 of sector 0");
  saveCode->add_option("DISK", savingCode->device, "The whole disk")->required();
  saveCode->add_option("FILE", savingCode->file, "File to make; one that exists is refused")->required();
  saveCode->callback([savingCode, &status] {
    saveBootCode(*savingCode);
    status = kDone;
  });
}

}  // namespace vorlix::tool
