// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/Platform.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <span>
#include <utility>

#include <Vorlix/PartitionRecords.h>
#include "Arguments.h"
#include "Log.h"
#include "OpenDevices.h"

using vorlix::DeviceAccess;
using vorlix::DeviceHandle;
using vorlix::DeviceLock;
using vorlix::keepOpen;
using vorlix::logMessage;
using vorlix::orEmpty;
using vorlix::readWhole;
using vorlix::Stream;
using vorlix::writeWhole;

namespace {

// The boot area of a volume has 8 KiB. Its first 84 bytes belong to the volume: jump, OEM name and parameter block.
constexpr uint64_t kVBROffset = 84;
constexpr size_t kVBRSize = 8108;

constexpr int32_t kFailed = -1;
constexpr int32_t kSaveSeekFailed = -2;
constexpr int32_t kSaveReadFailed = -3;
constexpr int32_t kSaveOpenFailed = -4;
constexpr int32_t kSaveWriteFailed = -5;

constexpr int32_t kRestoreFileNotOpened = -2;
constexpr int32_t kRestoreFileTooShort = -3;  // -4 has never been used
constexpr int32_t kRestoreDeviceNotOpened = -5;
constexpr int32_t kRestoreSeekFailed = -6;
constexpr int32_t kRestoreWriteFailed = -7;

// Each transfer has a position, so a device without positions fails in the first transfer.
bool cannotSeek() {
  return errno == ESPIPE;
}

std::unique_ptr<DeviceHandle> openDevice(const char* path, DeviceAccess access, DeviceLock lock) {
  return vorlix::platform().deviceFile->open(path, access, lock);
}

// Creates a file for appending. The caller has checked that it does not exist; a file or link that appeared meanwhile
// is not touched.
Stream openSavedFile(const char* path) {
  constexpr mode_t kMode = 0666;  // less the process's umask
  const int descriptor = open(path, O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode);
  if (descriptor < 0) return nullptr;
  Stream stream(fdopen(descriptor, "a"));
  if (!stream) close(descriptor);
  return stream;
}

// Writes, syncs and closes a saved file. If it cannot be written, it stays open, as after every failure here.
bool writeSavedFile(Stream file, std::span<const uint8_t> bytes) {
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size() &&
                       std::fflush(file.get()) == 0 && fsync(fileno(file.get())) == 0;
  if (!written) {
    keepOpen(std::move(file));
    return false;
  }
  return std::fclose(file.release()) == 0;
}

// What a caller calls its bytes, and what it returns after a failure.
struct SaveStatuses {
  const char* bytes;
  int32_t openFailed;
  int32_t writeFailed;
};

int32_t saveTo(const char* file, std::span<const uint8_t> bytes, const SaveStatuses& statuses) {
  Stream saved = openSavedFile(file);
  if (!saved) {
    logMessage("could not open %s\n", file);
    return statuses.openFailed;
  }
  if (!writeSavedFile(std::move(saved), bytes)) {
    logMessage("error writing %s data", statuses.bytes);
    return statuses.writeFailed;
  }
  return 0;
}

}  // namespace

int32_t file_exist(const char* path) {
  struct stat status = {};
  return stat(orEmpty(path), &status) == 0 ? 1 : 0;
}

int32_t write_vbr_to_file(const char* device, const char* file) try {
  device = orEmpty(device);
  file = orEmpty(file);
  logMessage("writing vbr from volume %s to %s\n", device, file);
  if (file_exist(file) != 0) {
    logMessage("%s already exists\n", file);
    return kFailed;
  }
  std::unique_ptr<DeviceHandle> volume = openDevice(device, DeviceAccess::readWrite, DeviceLock::none);
  if (!volume) {
    logMessage("could not open %s\n", device);
    return kFailed;
  }
  std::array<uint8_t, kVBRSize> bytes = {};
  const bool complete = readWhole(*volume, bytes.data(), bytes.size(), kVBROffset);
  if (!complete && cannotSeek()) {
    logMessage("could not seek %s\n", device);
    keepOpen(std::move(volume));
    return kSaveSeekFailed;
  }
  if (!complete) {
    logMessage("error reading VBR data on device %s\n", device);
    std::perror("error reading VBR data\n");
    keepOpen(std::move(volume));
    return kSaveReadFailed;
  }
  static_cast<void>(volume->close());
  return saveTo(file, bytes, {"VBR", kSaveOpenFailed, kSaveWriteFailed});
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return kFailed;
}

int32_t write_mbr_to_file(const char* device, const char* file) try {
  if (device == nullptr || file == nullptr) return kFailed;
  if (file_exist(file) != 0) {
    logMessage("%s already exists\n", file);
    return kFailed;
  }
  std::unique_ptr<DeviceHandle> disk = openDevice(device, DeviceAccess::readOnly, DeviceLock::shared);
  if (!disk) {
    const int reason = errno;
    logMessage("error writing %s\n", device);
    logMessage("errno is %i\n", reason);
    // Hosts rely on this exit, as with the boot code of a new table: they must not continue without a backup.
    std::exit(-1);
  }
  std::array<uint8_t, vorlix::kBootCodeSize> bytes = {};
  if (!readWhole(*disk, bytes.data(), bytes.size(), 0)) {
    std::perror("error reading MBR data:");
    keepOpen(std::move(disk));
    return kFailed;
  }
  static_cast<void>(disk->close());
  return saveTo(file, bytes, {"MBR", kFailed, kFailed});
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return kFailed;
}

int32_t restore_vbr_to_device(const char* file, const char* device) try {
  device = orEmpty(device);
  file = orEmpty(file);
  static_cast<void>(unmount_disk(device));
  if (file_exist(file) == 0) {
    logMessage("%s does not exist\n", file);
    return kFailed;
  }
  Stream saved(std::fopen(file, "re"));
  if (!saved) {
    logMessage("could not open %s\n", file);
    return kRestoreFileNotOpened;
  }
  std::array<uint8_t, kVBRSize> bytes = {};
  if (std::fread(bytes.data(), 1, bytes.size(), saved.get()) != bytes.size()) {
    logMessage("could not read VBR file data%s", "");
    keepOpen(std::move(saved));
    return kRestoreFileTooShort;
  }
  saved.reset();
  std::unique_ptr<DeviceHandle> volume = openDevice(device, DeviceAccess::readWrite, DeviceLock::none);
  if (!volume) {
    logMessage("could not open %s for writing out VBR\n", device);
    std::perror("Error opening in_device");
    return kRestoreDeviceNotOpened;
  }
  const bool written = writeWhole(*volume, bytes.data(), bytes.size(), kVBROffset);
  if (!written && cannotSeek()) {
    logMessage("could not seek %s\n", device);
    keepOpen(std::move(volume));
    return kRestoreSeekFailed;
  }
  if (!written || volume->sync() != 0) {
    logMessage("could not write VBR to device%s", "");
    keepOpen(std::move(volume));
    return kRestoreWriteFailed;
  }
  static_cast<void>(volume->close());
  return 0;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return kFailed;
}

int32_t change_ownership(const char* path, uint32_t owner, uint32_t group) {
  constexpr mode_t kMode = 0644;
  const int result = chown(orEmpty(path), owner, group);
  return result == 0 ? chmod(orEmpty(path), kMode) : result;
}
