// SPDX-License-Identifier: Apache-2.0
#include "MountedVolumes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "../posix/Descriptor.h"
#include "../posix/MountFacts.h"
#include "BlockDevices.h"
#include "DeviceFacts.h"
#include "DiskDescription.h"
#include "FatLayout.h"
#include "MirrorState.h"
#include "MountTable.h"
#include "Mounting.h"
#include "OpenedDevice.h"
#include "VolumeProbe.h"

namespace vorlix {
namespace {

constexpr std::string_view kNTFSDriver = "ntfs:/";

// The mounts of one device, the first one first.
using Mounts = std::vector<const MountPoint*>;

// Drivers in user space are known by the names they choose; "ntfs:/share" of another file system is a server's.
bool isNamedByDriver(const MountPoint& mount) {
  return mount.fileSystem.rfind("fuse", 0) == 0 && mount.source.rfind(kNTFSDriver, 0) == 0;
}

// The table by devices, each at its first place.
std::vector<Mounts> byDevice(const std::vector<MountPoint>& table) {
  std::vector<Mounts> devices;
  std::map<std::pair<std::string, dev_t>, size_t> places;
  for (const MountPoint& mount : table) {
    const bool byName = isNamedByDriver(mount);
    if (!byName && major(mount.device) == 0) continue;
    const auto key = byName ? std::pair(mount.source, dev_t{0}) : std::pair(std::string(), mount.device);
    const auto [place, isNew] = places.try_emplace(key, devices.size());
    if (isNew) devices.emplace_back();
    devices[place->second].push_back(&mount);
  }
  return devices;
}

// The number of the mount that an open file is on. Unlike stat() this asks the kernel alone.
std::optional<int> mountIDOf(int descriptor) {
  std::ifstream info("/proc/self/fdinfo/" + std::to_string(descriptor));
  for (std::string field; info >> field;) {
    int id = 0;
    if (field == "mnt_id:" && info >> id) return id;
  }
  return std::nullopt;
}

void measure(int descriptor, MountedVolume& volume) {
  struct statvfs status = {};
  if (fstatvfs(descriptor, &status) != 0) return;
  volume.totalSize = bytesIn(status.f_blocks, status.f_frsize);
  volume.freeSpace = bytesIn(status.f_bavail, status.f_frsize);
}

// Where the volume's root is, and its sizes. A path that this user cannot reach has to do where there is no other.
void findPlace(const Mounts& mounts, MountedVolume& volume) {
  for (const MountPoint* const mount : mounts) {
    if (!mount->isWhole) continue;
    const Descriptor place(open(mount->path.c_str(), O_PATH | O_CLOEXEC));  // does not reach the file system itself
    if (!place) {
      if (errno == EACCES && !volume.mountPath) volume.mountPath = mount->path;
      continue;
    }
    if (mountIDOf(place.get()) != mount->id) continue;  // covered by another mount, or gone
    volume.mountPath = mount->path;
    measure(place.get(), volume);
    return;
  }
}

std::optional<std::string> sourceOf(const MountPoint& mount) {
  if (isNamedByDriver(mount)) return mount.source;
  if (std::optional<std::string> image = imageBehind(mount.device)) return image;
  struct stat status = {};
  const bool isNode = mount.source.rfind("/dev/", 0) == 0 && stat(mount.source.c_str(), &status) == 0 &&
                      S_ISBLK(status.st_mode) && status.st_rdev == mount.device;
  return isNode ? mount.source : nodeOfDevice(mount.device);
}

// What tells a volume from others, whatever name leads to it; see mirrorKey().
std::string identityOf(const std::string& device) {
  const std::optional<DeviceLocation> location = locateDevice(device);
  if (!location) return device;
  Extent window;
  if (!location->hasOwnNode()) {
    const std::optional<OpenedDevice> opened = openLocation(*location, O_RDONLY);
    if (!opened) return device;
    window = opened->window;
  }
  return mirrorKey(*location, window).value_or(device);
}

std::optional<std::string> labelOf(dev_t device) {
  const std::optional<std::string> node = nodeOfDevice(device);
  if (!node) return std::nullopt;
  const DeviceLocation location{*node, *node, 0, false};
  const std::optional<VolumeFacts> facts = volumeFactsOf(location, openLocation(location, O_RDONLY));
  return facts ? facts->label : std::nullopt;
}

std::string nameFor(const MountedVolume& volume) {
  return validText(lastComponent(volume.mountPath.value_or(volume.mountedFrom)));
}

// Absent where the mirror is no longer that of the device it was made from.
std::optional<MountedVolume> mirroredVolume(const KnownMirror& mirror) {
  const std::string& device = mirror.state.device;
  MountedVolume volume;
  volume.mountedFrom = device.rfind('/', 0) == 0 ? device : "/dev/" + device;
  volume.mountPath = mirror.state.folder;
  const std::optional<DeviceLocation> location = locateDevice(volume.mountedFrom);
  if (!location) return std::nullopt;
  const std::optional<OpenedDevice> opened = openLocation(*location, O_RDONLY);
  if (!opened && errno != EACCES && errno != EPERM) return std::nullopt;
  if (opened && mirrorKey(*location, opened->window) != mirror.key) return std::nullopt;
  const std::optional<VolumeFacts> facts = volumeFactsOf(*location, opened);
  volume.name = facts && facts->label ? *facts->label : nameFor(volume);
  FatSpace space;
  if (opened && !readFatSpace(opened->descriptor.get(), opened->window, space)) {
    volume.totalSize = space.total;
    volume.freeSpace = space.free;
  }
  return volume;
}

}  // namespace

std::vector<MountedVolume> LinuxMountedVolumes::volumes() {
  std::vector<MountedVolume> volumes;
  std::set<std::string> listed;
  const std::vector<MountPoint> table = mountTable();
  for (const Mounts& mounts : byDevice(table)) {
    const MountPoint& first = *mounts.front();
    const std::optional<std::string> source = sourceOf(first);
    if (!source) continue;
    const bool byName = isNamedByDriver(first);
    if (!listed.insert(byName ? *source : identityOf(*source)).second) continue;
    MountedVolume volume;
    volume.mountedFrom = *source;
    findPlace(mounts, volume);
    const std::optional<std::string> label = byName ? std::nullopt : labelOf(first.device);
    volume.name = label ? *label : nameFor(volume);
    volumes.push_back(std::move(volume));
  }
  for (const KnownMirror& mirror : allMirrors()) {
    std::optional<MountedVolume> volume = mirroredVolume(mirror);
    if (volume && listed.insert(mirror.key).second) volumes.push_back(*std::move(volume));
  }
  return volumes;
}

}  // namespace vorlix
