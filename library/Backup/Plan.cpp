// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/Backup.h>
#include <Vorlix/foundation/URL.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/DiskChange.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemError.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "BackupFiles.h"
#include "Layout.h"
#include "Parts.h"

namespace vorlix {
namespace {

constexpr const char* kAnyway = " (--force saves it all the same)";

std::shared_ptr<DeviceHandle> openVolume(const std::string& volume) {
  std::shared_ptr<DeviceHandle> handle =
      platform().deviceFile->open(volume, DeviceAccess::readOnly, DeviceLock::shared);
  if (handle) return handle;
  if (errno == EWOULDBLOCK) throw BackupError(volume, "locked by another process");
  throw BackupError::ofErrno(volume, errno);
}

void object(BackupPlan& plan, const std::string& reason) {
  if (!plan.request.force) throw BackupError(plan.request.volume, reason + kAnyway);
  plan.warnings.push_back(reason);
}

// A folder on a volume that is mounted for reading fails a test for writing with EROFS, whoever asks.
void checkMounts(BackupPlan& plan, const Dictionary& description) {
  const std::optional<URL> mounted = description.url(kDescriptionVolumePath);
  if (!mounted) return;
  errno = 0;
  if (access(mounted->path().c_str(), W_OK) != 0 && errno == EROFS) return;
  object(plan, "mounted for writing at " + mounted->path() + ", so that what is saved could be torn; unmount it");
}

void checkInterruptedChanges(BackupPlan& plan) {
  for (const InterruptedChange& change : interruptedChanges(*plan.volume)) {
    object(plan, "a change was cut off (" + change.title + "); the next command that writes to the disk finishes it");
  }
}

// The block map counts in blocks of 512 bytes.
void roundToBlocks(std::vector<ByteRange>& ranges, uint64_t size) {
  size_t kept = 0;
  for (size_t i = 0; i < ranges.size(); ++i) {
    const uint64_t start = ranges[i].offset / kMapBlock * kMapBlock;
    const uint64_t end = std::min((ranges[i].end() + kMapBlock - 1) / kMapBlock * kMapBlock, size);
    if (kept > 0 && ranges[kept - 1].end() >= start) {
      ranges[kept - 1].size = std::max(end, ranges[kept - 1].end()) - ranges[kept - 1].offset;
    } else {
      ranges[kept++] = {start, end - start};
    }
  }
  ranges.resize(kept);
}

// A part that cannot be read is not a part that the disk does not have.
void checkParts(BackupPlan& plan) {
  for (const BackupPart& part : plan.parts) {
    if (part.isUnread) object(plan, part.file + " cannot be saved: " + part.missing);
  }
}

void readVolume(BackupPlan& plan) {
  plan.volume = openVolume(plan.request.volume);
  const std::optional<uint64_t> size = plan.volume->size();
  if (!size || *size == 0) throw BackupError(plan.request.volume, "its size is not known, or it is empty");
  plan.size = *size;
  plan.sectorSize = plan.volume->blockSize().value_or(kMapBlock);
  DeviceHandle& volume = *plan.volume;
  const auto read = [&volume](uint64_t offset, std::span<uint8_t> bytes) {
    const ssize_t got = volume.readAt(bytes.data(), bytes.size(), offset);
    return got < 0 ? size_t{0} : static_cast<size_t>(got);
  };
  plan.allocation = readAllocation(read, plan.size);
  if (plan.allocation.isCutOff) object(plan, plan.allocation.doubt + ": it is truncated");
  roundToBlocks(plan.allocation.used, plan.size);
}

void lookAt(BackupPlan& plan) {
  refuseTakenName(withoutFinalSlashes(plan.request.folder));
  const std::string& volume = plan.request.volume;
  const auto session = platform().diskArbitration->createSession();
  errno = 0;
  const auto disk = session ? session->diskFromBSDName(volume) : nullptr;
  if (!disk) throw BackupError(volume, errno == EACCES ? SystemError{errno}.reason() : "no such device or disk image");
  const Dictionary description = disk->copyDescription().value_or(Dictionary{});
  errno = 0;
  const auto whole = disk->wholeDisk();
  if (!whole && errno != 0 && errno != ENOENT) throw BackupError(volume, "its disk: " + SystemError{errno}.reason());
  plan.name = disk->bsdName().value_or(volume);
  plan.wholeDisk = (whole ? whole->bsdName() : std::nullopt).value_or(plan.name);
  checkMounts(plan, description);

  const VolumesDisk facts = lookAtDisk(plan.wholeDisk);
  std::vector<BackupPart> ofDisk;
  addDiskParts(facts, plan.name != plan.wholeDisk, ofDisk);

  readVolume(plan);
  const std::string content = description.text(kDescriptionMediaContent).value_or("");
  if (plan.name == plan.wholeDisk && plan.allocation.fileSystem.empty() && content.ends_with("_partition_scheme")) {
    throw BackupError(volume,
                      "a whole disk with a partition table; name the slice to be saved, as in " + volume + "s3");
  }
  checkInterruptedChanges(plan);
  addVolumeParts(plan);
  plan.parts.insert(plan.parts.end(), std::make_move_iterator(ofDisk.begin()), std::make_move_iterator(ofDisk.end()));
  addIdentityParts(plan, facts, description);
  checkParts(plan);
}

}  // namespace

std::optional<BackupFailure> planBackup(const BackupRequest& request, BackupPlan& plan) {
  plan = BackupPlan();
  plan.request = request;
  try {
    lookAt(plan);
  } catch (const BackupError& error) {
    return BackupFailure{error.subject, error.what(), error.isCancelled};
  }
  return std::nullopt;
}

}  // namespace vorlix
