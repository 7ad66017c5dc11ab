// SPDX-License-Identifier: Apache-2.0
#include "Mounting.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "DeviceFacts.h"
#include "KernelMount.h"
#include "MirrorLookup.h"
#include "MirroredVolume.h"
#include "MountFolders.h"
#include "MountTable.h"
#include "VolumeDevice.h"
#include "VolumeProbe.h"

namespace vorlix {
namespace {

constexpr mode_t kFolderMode = 0755;

struct MountOptions {
  bool readOnly = false;
  bool readWrite = false;
  bool noBrowse = false;
};

Refusal parseArguments(const std::vector<std::string>& arguments, MountOptions& options) {
  for (const std::string& argument : arguments) {
    if (argument == "rw") {
      options.readWrite = true;
    } else if (argument == "rdonly") {
      options.readOnly = true;
    } else if (argument == "nobrowse") {
      options.noBrowse = true;
    } else {
      return Dissenter{kDissentBadArgument, "unknown mount argument \"" + argument + "\""};
    }
  }
  if (options.readOnly && options.readWrite) return Dissenter{kDissentBadArgument, "a mount is either rdonly or rw"};
  return std::nullopt;
}

// Whether what is mounted already is what is asked for.
Refusal checkMounted(const std::string& device, bool isReadOnly, const MountOptions& options) {
  if (options.readWrite && isReadOnly) {
    return Dissenter{kDissentNotWritable, device + " is mounted already, and read-only"};
  }
  if (options.readOnly && !isReadOnly) {
    return Dissenter{kDissentNotPermitted, device + " is mounted already, and for writing"};
  }
  return std::nullopt;
}

std::string folderNameFor(const DeviceLocation& location, const ProbedVolume& facts) {
  std::string name = safeFolderName(facts.label.value_or(""));
  if (name.empty()) {
    const std::string device = bsdNameOf(location).value_or("volume");
    name = safeFolderName(device.substr(device.rfind('/') + 1));
  }
  return name;
}

Refusal mountWithKernel(const DeviceLocation& location, const OpenedDevice& device, const ProbedVolume& facts,
                        const MountOptions& options) {
  KernelMountRequest request;
  request.source = location.node;
  if (location.isImage || !location.hasOwnNode()) request.loop = device.window;
  request.kind = facts.kind;
  request.readOnly = options.readOnly || isReadOnlyMedium(location);
  request.readWrite = options.readWrite;
  request.noBrowse = options.noBrowse;
  if (Refusal refusal = makeMountFolder(folderNameFor(location, facts), kFolderMode, request.folder)) return refusal;
  Refusal refusal = mountByKernel(request);
  if (refusal) removeMountFolder(request.folder);
  return refusal;
}

// For a mount that must not change the disk.
Refusal requireSettled(const DeviceLocation& location) {
  VolumeDevice device;
  if (Refusal refusal = device.open(location, false)) return refusal;
  return device.settle();
}

Refusal mountUnmounted(const DeviceLocation& location, const OpenedDevice& device, const MountOptions& options) {
  // An interrupted change must be finished before the volume is examined.
  if (Refusal refusal = options.readOnly ? requireSettled(location) : settleVolume(location)) return refusal;
  const std::optional<ProbedVolume> facts = probeVolume(device.descriptor.get(), device.window);
  if (!facts) return Dissenter{kDissentUnsupported, "the volume has no file system that is known here"};
  if (options.readWrite && isReadOnlyMedium(location)) return dissenterFor(EROFS, location.whole);
  const bool isFAT = facts->kind == "msdos";
  if (geteuid() == 0) {
    Refusal refusal = mountWithKernel(location, device, *facts, options);
    const bool mayMirror =
        isFAT && refusal && refusal->status != kDissentBusy && refusal->status != kDissentNotWritable;
    if (!mayMirror) return refusal;
  } else if (!isFAT) {
    return Dissenter{kDissentNotPrivileged, "only the super-user can mount a volume of kind " + facts->kind};
  }
  const bool readOnly = isReadOnlyMedium(location) || access(location.node.c_str(), W_OK) != 0;
  if (options.readWrite && readOnly) {
    return Dissenter{kDissentNotWritable, location.node + " cannot be written by this user"};
  }
  return mountMirror(location, device, folderNameFor(location, *facts), options.readOnly || readOnly);
}

// The mounts of a volume.
struct Mounted {
  std::vector<MountPoint> byKernel;
  std::optional<std::string> mirrorKey;
  std::optional<MirrorState> mirror;
};

Mounted findMounts(const DeviceLocation& location, const std::optional<OpenedDevice>& device) {
  Mounted mounted;
  if (!device && !location.hasOwnNode()) return mounted;
  const Extent window = device ? device->window : Extent{};
  mounted.byKernel = mountsOf(location, window);
  mounted.mirrorKey = mirrorKey(location, window);
  if (mounted.mirrorKey) mounted.mirror = findSettledMirror(*mounted.mirrorKey, device);
  return mounted;
}

// Returns the mount that counts as the volume's: the first of its root, or else the first.
const MountPoint* mainMount(const std::vector<MountPoint>& mounts) {
  if (mounts.empty()) return nullptr;
  const auto whole = std::find_if(mounts.begin(), mounts.end(), [](const MountPoint& mount) { return mount.isWhole; });
  return whole == mounts.end() ? &mounts.front() : &*whole;
}

// Returns the folder of a mirror of another volume that had this device name.
std::optional<std::string> orphanOf(const DeviceLocation& location) {
  const std::optional<std::string> name = bsdNameOf(location);
  for (const FoundMirror& found : findMirrors()) {
    if (found.mirror.state.device == name && found.volume != MirroredVolumeIs::there) return found.mirror.state.folder;
  }
  return std::nullopt;
}

}  // namespace

Refusal mountVolume(const std::string& device, const std::vector<std::string>& arguments) {
  MountOptions options;
  if (Refusal refusal = parseArguments(arguments, options)) return refusal;
  const std::optional<DeviceLocation> location = locateDevice(device);
  if (!location) return dissenterFor(errno, device);
  const std::optional<OpenedDevice> opened = openLocation(*location, O_RDONLY);
  const int reason = errno;
  const Mounted mounted = findMounts(*location, opened);
  if (const MountPoint* const mount = mainMount(mounted.byKernel)) {
    return checkMounted(device, mount->isReadOnly, options);
  }
  if (mounted.mirror) return checkMounted(device, mounted.mirror->readOnly, options);
  if (!opened) return dissenterFor(reason, device);
  return mountUnmounted(*location, *opened, options);
}

Refusal unmountVolume(const std::string& device) {
  const std::optional<DeviceLocation> location = locateDevice(device);
  if (!location) return dissenterFor(errno, device);
  const Mounted mounted = findMounts(*location, openLocation(*location, O_RDONLY));
  if (mounted.byKernel.empty() && !mounted.mirror) {
    std::string text = device + " is not mounted";
    // A volume that replaced another one is not the one that was mounted.
    if (const auto orphan = orphanOf(*location)) {
      text += std::string("; what was mounted by that name was another ") + (location->isImage ? "image" : "volume") +
              ", whose files are kept in " + *orphan;
    }
    return Dissenter{kDissentNotMounted, text};
  }
  for (auto mount = mounted.byKernel.rbegin(); mount != mounted.byKernel.rend(); ++mount) {
    if (Refusal refusal = unmountByKernel(*mount)) return refusal;
    removeMountFolder(mount->path);
  }
  if (!mounted.mirror) return std::nullopt;
  return unmountMirror(*location, *mounted.mirrorKey, mounted.mirror->identity);
}

std::optional<VolumePlace> volumePlaceOf(const DeviceLocation& location, const std::optional<OpenedDevice>& opened) {
  const Mounted mounted = findMounts(location, opened);
  if (const MountPoint* const mount = mainMount(mounted.byKernel)) return VolumePlace{mount->path, mount->fileSystem};
  if (mounted.mirror) return VolumePlace{mounted.mirror->folder, "vfat"};
  return std::nullopt;
}

}  // namespace vorlix
