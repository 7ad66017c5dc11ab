// SPDX-License-Identifier: Apache-2.0
#include "KernelMount.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

#include "Command.h"
#include "MountCall.h"
#include "MountSources.h"

namespace vorlix {
namespace {

// Exit statuses of ntfs-3g, as ntfs-3g.probe(8) lists them.
constexpr int kNTFSHibernated = 14;
constexpr int kNTFSUnclean = 15;
constexpr int kNTFSInUse = 16;
constexpr int kNTFSNoPrivilege = 20;
constexpr int kNTFSNotRoot = 21;

constexpr const char* kUncleanNTFS =
    "the NTFS volume is hibernated or was not unmounted cleanly; shut Windows down completely (without fast start-up) "
    "before it is mounted for writing";

// The names of drivers and mount helpers to try for a kind of volume.
std::vector<std::string> driversFor(const std::string& kind) {
  if (kind == "msdos") return {"vfat"};
  if (kind == "ntfs") return {"ntfs-3g", "ntfs3", "ntfs"};
  if (kind == "exfat") return {"exfat", "exfat-fuse"};
  if (kind == "hfs") return {"hfsplus", "hfs"};
  return {kind};
}

std::string optionsFor(const KernelMountRequest& request) {
  std::string options = "nosuid,nodev";
  if (request.readWrite) options += ",rw";
  if (request.readOnly) options += ",ro";
  if (request.noBrowse) options += ",x-gvfs-hide";
  if (request.loop) {
    options += ",loop,offset=" + std::to_string(request.loop->offset);
    options += ",sizelimit=" + std::to_string(request.loop->size);
  }
  return options;
}

Dissenter helperDissenter(const KernelMountRequest& request, const MountOutcome& outcome) {
  if (request.kind == "ntfs") {
    switch (outcome.error) {
      case kNTFSHibernated:
      case kNTFSUnclean:
        return {kDissentNotWritable, kUncleanNTFS};
      case kNTFSInUse:
        return {kDissentBusy, request.source + " is in use"};
      case kNTFSNoPrivilege:
      case kNTFSNotRoot:
        return {kDissentNotPrivileged, "only the super-user can mount " + request.source};
      default:
        break;
    }
  }
  return {kDissentError, "the mount helper for " + request.kind + " failed on " + request.source + " with status " +
                             std::to_string(outcome.error)};
}

Dissenter mountDissenter(const KernelMountRequest& request, const MountOutcome& outcome) {
  if (outcome.byHelper) return helperDissenter(request, outcome);
  // mount(2) fails with EINVAL for a superblock that the driver refuses.
  Dissenter dissenter = dissenterFor(outcome.error == EINVAL ? EUCLEAN : outcome.error, request.source);
  if (!outcome.text.empty()) dissenter.text = request.source + ": " + outcome.text;
  if (request.kind == "ntfs" && outcome.error == EINVAL)
    dissenter.text += " (perhaps " + std::string(kUncleanNTFS) + ")";
  return dissenter;
}

bool isMounted(int id) {
  const std::vector<MountPoint> mounts = mountTable();
  return std::any_of(mounts.begin(), mounts.end(), [&](const MountPoint& mount) { return mount.id == id; });
}

bool isMountedElsewhere(dev_t number) {
  const std::vector<MountPoint> mounts = mountTable();
  return std::any_of(mounts.begin(), mounts.end(), [&](const MountPoint& mount) { return mount.number == number; });
}

// Compares with the table, because the root of the mount may be inaccessible: drivers in user space refuse other users.
bool isOnTop(const MountPoint& wanted) {
  const std::vector<MountPoint> mounts = mountTable();
  const auto top =
      std::find_if(mounts.rbegin(), mounts.rend(), [&](const MountPoint& mount) { return mount.path == wanted.path; });
  return top != mounts.rend() && top->id == wanted.id;
}

// Runs the system's program for users who unmount what they mounted.
Refusal unmountAsUser(const std::string& path) {
  CommandResult result;
  for (const char* const program : {"fusermount3", "fusermount"}) {
    Command command;
    command.arguments = {program, "-u", "--", path};
    result = runCommand(command);
    if (result.launchError == 0) break;
  }
  if (result.succeeded()) return std::nullopt;
  if (result.launchError != 0) {
    return Dissenter{kDissentNotPrivileged, "only the super-user can unmount " + path + " without fusermount3"};
  }
  const bool isBusy = result.errors.find(SystemError{EBUSY}.reason()) != std::string::npos;
  return Dissenter{isBusy ? kDissentBusy : kDissentError, path + ": " + result.errors};
}

Refusal waitForDriver(const MountSource& source, const std::string& path) {
  constexpr auto kLongest = std::chrono::seconds(30);
  constexpr auto kStep = std::chrono::milliseconds(10);
  const auto isHeld = [&](const std::string& holder) {
    struct stat status = {};
    return stat(holder.c_str(), &status) == 0 && originOf(status, source.origin.offset) == source.origin;
  };
  const auto deadline = std::chrono::steady_clock::now() + kLongest;
  for (const std::string& holder : source.holders) {
    while (isHeld(holder)) {
      if (std::chrono::steady_clock::now() > deadline) {
        return Dissenter{kDissentBusy,
                         path + " is unmounted, but its driver still has the device open (" + holder + ")"};
      }
      std::this_thread::sleep_for(kStep);
    }
  }
  return std::nullopt;
}

}  // namespace

Refusal mountByKernel(const KernelMountRequest& request) {
  if (request.readOnly && request.readWrite) return dissenterFor(EROFS, request.source);
  Refusal refusal;
  for (const std::string& driver : driversFor(request.kind)) {
    const MountOutcome outcome =
        callMount({driver, request.source, request.folder, optionsFor(request), request.readWrite});
    if (outcome.error == 0) {
      refusal.reset();
      break;
    }
    // The refusal of an existing driver says more than a missing driver.
    if (!refusal || outcome.error != ENODEV) refusal = mountDissenter(request, outcome);
    const bool tryOther = !outcome.byHelper && (outcome.error == ENODEV || outcome.error == EINVAL);
    if (!tryOther) break;
  }
  if (refusal) return refusal;

  const std::optional<MountPoint> mounted = mountAt(request.folder);
  if (!mounted) return Dissenter{kDissentError, request.source + " was mounted, but not in " + request.folder};
  if (!request.readWrite || !mounted->isReadOnly) return std::nullopt;
  // Some drivers mount a volume read-only if they are not sure about it.
  if (Refusal stuck = unmountByKernel(request.folder)) return stuck;
  if (request.kind == "ntfs") return Dissenter{kDissentNotWritable, kUncleanNTFS};
  return Dissenter{kDissentNotWritable, request.source + " can only be mounted read-only"};
}

Refusal unmountByKernel(const std::string& path) {
  const MountOutcome outcome = callUnmount(path);
  if (outcome.error == 0) return std::nullopt;
  if (outcome.byHelper) {
    return Dissenter{kDissentError, path + ": the unmount helper failed with status " + std::to_string(outcome.error)};
  }
  if (outcome.error == EINVAL) return Dissenter{kDissentNotMounted, path + " is not mounted"};
  return dissenterFor(outcome.error, path);
}

Refusal unmountByKernel(const MountPoint& mount) {
  if (!isMounted(mount.id)) return std::nullopt;
  if (!isOnTop(mount)) return Dissenter{kDissentBusy, "another volume is mounted over " + mount.path};
  const std::optional<MountSource> source = mount.isByDriver ? MountSources().of(mount) : std::nullopt;
  const bool isOwn = mount.isByDriver && geteuid() != 0 && mount.user == geteuid();
  Refusal refusal = isOwn ? unmountAsUser(mount.path) : unmountByKernel(mount.path);
  if (isMounted(mount.id)) {
    if (refusal && refusal->status != kDissentNotMounted) return refusal;
    return Dissenter{kDissentBusy, mount.path + " stays mounted; another mount may cover it"};
  }
  if (!source || isMountedElsewhere(mount.number)) return std::nullopt;
  return waitForDriver(*source, mount.path);
}

}  // namespace vorlix
