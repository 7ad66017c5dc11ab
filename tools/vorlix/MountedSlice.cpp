// SPDX-License-Identifier: Apache-2.0
#include "MountedSlice.h"

#include <Vorlix/platform/FilesInPlace.h>
#include <Vorlix/platform/MountedVolumes.h>
#include <Vorlix/platform/Platform.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <utility>

#include "Arbitration.h"
#include "Complaint.h"
#include "Failure.h"
#include "VolumeFolder.h"

namespace vorlix::tool {
namespace {

// Whether a file system of its own begins at a folder.
bool isMountPoint(const std::string& path) {
  struct stat own = {};
  struct stat above = {};
  return stat(path.c_str(), &own) == 0 && stat((path + "/..").c_str(), &above) == 0 && own.st_dev != above.st_dev;
}

}  // namespace

MountedSlice::MountedSlice(std::string slice)
    : slice_(std::move(slice)), wasMounted_(mountPointOf(slice_).has_value()) {
  if (!wasMounted_) {
    if (const auto refusal = tryMount(slice_, MountFor::writing)) throw Failure(slice_, reasonText(*refusal));
  }
  const std::optional<std::string> path = mountPointOf(slice_);
  if (!path) throw Failure(slice_, "it was mounted, but not at any place that can be seen");
  path_ = *path;
  isMirror_ = !isMountPoint(path_);
}

MountedSlice::~MountedSlice() {
  if (wasMounted_ || isDone_) return;
  try {
    if (const auto refusal = tryUnmount(slice_)) complain(slice_ + ": stays mounted: " + reasonText(*refusal));
  } catch (const std::exception& error) {
    complain(error.what());
  }
}

std::optional<uint64_t> MountedSlice::freeSpace() const {
  if (!isMirror_) {
    struct statvfs status = {};
    if (statvfs(path_.c_str(), &status) != 0 || status.f_blocks == 0) return std::nullopt;
    return uint64_t{status.f_bavail} * status.f_frsize;
  }
  for (const MountedVolume& volume : platform().mountedVolumes->volumes()) {
    if (volume.mountPath == path_) return volume.freeSpace;
  }
  return std::nullopt;
}

void MountedSlice::finish(const std::string& change) {
  isDone_ = true;
  if (wasMounted_ && !isMirror_) {
    const VolumeFolder root(path_, false);
    if (platform().filesInPlace->syncFileSystem(root.descriptor()) == 0) return;
    throw Failure::ofErrno(path_, errno, change + " stands there, but may not be on the medium");
  }
  const std::optional<Dissenter> refusal = tryUnmount(slice_);
  if (!refusal) return;
  std::string state = change + " is on the disk, which stays mounted at " + path_;
  if (isMirror_) {
    const bool isThere = mountPointOf(slice_) == path_;
    state = isThere ? change + " is in " + path_ + ", and on the disk when that has been unmounted"
                    : change + " may be on the disk or not";
  }
  throw Failure(slice_, reasonText(*refusal), state);
}

}  // namespace vorlix::tool
