// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/foundation/Paths.h>
#include <Vorlix/platform/SystemError.h>
#include <Vorlix/platform/VolumeNames.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <Vorlix/StoreSlots.h>
#include "Arguments.h"
#include "Log.h"
#include "OpenDevices.h"

using vorlix::logMessage;
using vorlix::orEmpty;

namespace {

constexpr size_t kDestinationLimit = 255;  // bytes of the destination's path, its NUL included
constexpr size_t kCopyBlock = size_t{64} * 1024;

const char* modeName(int32_t mode) {
  switch (mode) {
    case vorlix::kStoreModeMDT:
      return "MDT";
    case vorlix::kStoreModeSCCM:
      return "SCCM";
    default:
      return "standard EFI boot";
  }
}

// A truncated path would name another file, so a path that is too long ends the process.
std::string destinationUnder(const std::string& mountPoint) {
  std::string path = mountPoint + "/EFI/Microsoft/Boot/BCD";
  if (path.size() >= kDestinationLimit) {
    std::fprintf(stderr, "update_bcd: the destination path is longer than %zu bytes: %s\n", kDestinationLimit - 1,
                 path.c_str());
    std::abort();
  }
  return path;
}

// Letter case has no meaning on the EFI System Partition, even if a driver distinguishes it: a second store beside the
// one that the firmware finds would have no effect. All spellings have the same length.
std::string inSpellingOfVolume(const std::string& path, const std::string& mountPoint, const char* disk) {
  std::string found = vorlix::pathInAnySpelling(mountPoint, {"EFI", "Microsoft", "Boot", "BCD"});
  const bool isOther = found != vorlix::appendPathComponent(mountPoint, "EFI/Microsoft/Boot/BCD");
  return isOther && vorlix::isCaseBlindDevice(std::string(vorlix::orEmpty(disk)) + "s1") ? found : path;
}

// A folder can be opened as a stream but not read. If it is given as the template, the store must survive.
vorlix::Stream openTemplate(const char* path) {
  vorlix::Stream stream(std::fopen(path, "rbe"));
  struct stat status = {};
  if (stream && (fstat(fileno(stream.get()), &status) != 0 || S_ISDIR(status.st_mode))) stream.reset();
  return stream;
}

// Returns whether both are the same file. In that case opening the store for writing would empty the template.
bool isSameFile(FILE* file, const std::string& path) {
  struct stat one = {};
  struct stat other = {};
  return fstat(fileno(file), &one) == 0 && stat(path.c_str(), &other) == 0 && one.st_dev == other.st_dev &&
         one.st_ino == other.st_ino;
}

bool isRegularFile(int descriptor) {
  struct stat status = {};
  if (fstat(descriptor, &status) != 0) return false;
  if (S_ISREG(status.st_mode)) return true;
  errno = EINVAL;
  return false;
}

// The store must be on the mounted volume. A link, which some file systems have, could lead to another file of the
// machine.
vorlix::Stream openStore(const std::string& path, const std::string& mountPoint) {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::path root = fs::canonical(mountPoint, error);
  const fs::path folder = error ? fs::path() : fs::canonical(fs::path(path).parent_path(), error);
  if (error) {
    errno = error.value();
    return nullptr;
  }
  if (std::mismatch(root.begin(), root.end(), folder.begin(), folder.end()).first != root.end()) {
    errno = ELOOP;
    return nullptr;
  }
  constexpr mode_t kMode = 0666;
  // Not blocking, and truncated only if it is a regular file: a pipe would block, and a device could react.
  constexpr int kFlags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const int descriptor = open(path.c_str(), kFlags, kMode);
  if (descriptor < 0) return nullptr;
  vorlix::Stream stream(isRegularFile(descriptor) && ftruncate(descriptor, 0) == 0 ? fdopen(descriptor, "w") : nullptr);
  if (!stream) {
    const int reason = errno;
    close(descriptor);
    errno = reason;
  }
  return stream;
}

int32_t destinationFailed() {
  const int reason = errno;
  std::perror("BCD Path Destination error:");
  std::printf("%s", vorlix::SystemError{reason}.reason().c_str());
  return -1;
}

// Copies until the source ends or one of the streams fails, whose error indicator is set then.
void copyStream(FILE* source, FILE* destination) {
  std::vector<uint8_t> block(kCopyBlock);
  size_t count = 0;
  do {
    count = std::fread(block.data(), 1, block.size(), source);
  } while (std::fwrite(block.data(), 1, count, destination) == count && count == block.size());
}

// Does the same as storeWithIdentifiers() in a file. If the template is short, the file system fills the gap with
// zeros.
void writeIdentifiers(int store, const vorlix::StoreIdentifiers& identifiers, int32_t mode) {
  for (const vorlix::StoreSlot& slot : vorlix::storeSlots(mode)) {
    const auto& guid = identifiers.of(slot.identifier);
    // Ignored: hosts check the store that they deploy.
    [[maybe_unused]] const ssize_t written = pwrite(store, guid.data(), guid.size(), off_t{slot.offset});
  }
}

}  // namespace

int32_t update_bcd(const char* source, const char* disk, const char* partition, int32_t mode) try {
  logMessage("Mounting EFI partition on %s\n", orEmpty(disk));
  const char* const mounted = mount_efi(disk);
  if (mounted == nullptr) {
    logMessage("problem mounting efi point %ss\n", "");
    return -1;
  }
  const std::string mountPoint = mounted;
  logMessage("mount point is %s\n", mountPoint.c_str());
  const std::string path = inSpellingOfVolume(destinationUnder(mountPoint), mountPoint, disk);
  if (file_exist(source) == 0) {
    logMessage("%s does not exist!\n", orEmpty(source));
    return -1;
  }
  vorlix::Stream original = openTemplate(source);
  if (!original) {
    logMessage("could not open %s\n", source);
    return -1;
  }
  if (isSameFile(original.get(), path)) {
    logMessage("%s is the store itself\n", source);
    return -1;
  }
  vorlix::Stream store = openStore(path, mountPoint);
  if (!store) return destinationFailed();

  logMessage("Copying BCD to %s\n", path.c_str());
  copyStream(original.get(), store.get());
  if (std::ferror(store.get()) != 0) return destinationFailed();
  if (std::ferror(original.get()) != 0) {
    logMessage("could not read %s\n", source);
    return -1;
  }
  original.reset();
  logMessage("Copying BCD done.%s\n", "");

  // Cleared, because the lookup does not set the identifiers of a partition without a registry entry or of a disk
  // without a GPT, and no data from the stack may get into a boot store.
  vorlix::StoreIdentifiers identifiers;
  int64_t offset = 0;
  if (lookup_disk_info(partition, identifiers.disk.data(), identifiers.partition.data(), &offset) != 0) {
    logMessage("Could not find disk uuid and partion uuid for %s\n", orEmpty(partition));
    // The slice stays mounted, and the store stays open with its last block not written.
    vorlix::keepOpen(std::move(store));
    return -1;
  }

  logMessage("Modifying BCD for %s.%s\n", modeName(mode), "");
  if (std::fflush(store.get()) != 0) return destinationFailed();
  writeIdentifiers(fileno(store.get()), identifiers, mode);
  // The slice is about to be unmounted; data that is not on the medium by then may be lost.
  if (fsync(fileno(store.get())) != 0) return destinationFailed();
  if (std::fclose(store.release()) != 0) return destinationFailed();
  logMessage("unmounting EFI partition%s\n", "");
  unmount_efi(disk);
  logMessage("Completed EFI update.%s\n", "");
  return 0;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return -1;
}
