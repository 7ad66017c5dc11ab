// SPDX-License-Identifier: Apache-2.0
#include "MountedVolumes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <set>
#include <utility>

#include <Vorlix/foundation/Utf8.h>
#include <Vorlix/platform/Descriptor.h>
#include "DeviceNames.h"
#include "DiskDescription.h"
#include "FatLayout.h"
#include "MirrorLookup.h"
#include "MountSources.h"
#include "MountedDevices.h"
#include "OpenedDevice.h"
#include "VolumeProbe.h"
#include "platform/posix/MountFacts.h"

namespace vorlix {
namespace {

// The mounts of one volume in the order of mounting.
using Mounts = std::vector<const MountPoint*>;

// Only for drivers in user space: "ntfs:/share" of another file system is a server's.
bool isNamedByDriver(const MountPoint& mount) {
  return mount.fileSystem.rfind("fuse", 0) == 0 && mount.source.rfind(kNTFSDriver, 0) == 0;
}

// A volume with its mounts.
struct MountedSource {
  Mounts mounts;
  std::optional<MountSource> source;  ///< absent if a driver chose a name that no device has
};

// Groups the table by volumes, in the order of their first mounts.
std::vector<MountedSource> bySource(const std::vector<MountPoint>& table) {
  std::vector<MountedSource> volumes;
  std::map<std::pair<std::string, std::optional<VolumeOrigin>>, size_t> places;
  MountSources sources;
  for (const MountPoint& mount : table) {
    std::optional<MountSource> source = sources.of(mount);
    const bool byName = isNamedByDriver(mount);
    if (!byName && !source) continue;
    const auto key = byName ? std::pair(mount.source, std::optional<VolumeOrigin>())
                            : std::pair(std::string(), std::optional(source->origin));
    const auto [place, isNew] = places.try_emplace(key, volumes.size());
    if (isNew) volumes.push_back({{}, std::move(source)});
    volumes[place->second].mounts.push_back(&mount);
  }
  return volumes;
}

// Returns the number of the mount of an open file. Unlike stat(), this does not access the file system.
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

// Finds the mount point of the volume's root, and its sizes. A path that this user cannot access is used only if there
// is no other.
void findPlace(const Mounts& mounts, MountedVolume& volume) {
  for (const MountPoint* const mount : mounts) {
    if (!mount->isWhole) continue;
    const Descriptor place(open(mount->path.c_str(), O_PATH | O_CLOEXEC));  // does not access the file system
    if (!place) {
      if (errno == EACCES && !volume.mountPath) volume.mountPath = mount->path;
      continue;
    }
    if (mountIDOf(place.get()) != mount->id) continue;  // covered by another mount, or unmounted
    volume.mountPath = mount->path;
    measure(place.get(), volume);
    return;
  }
}

std::optional<std::string> sourceNameOf(const MountPoint& mount, const std::optional<MountSource>& source) {
  if (isNamedByDriver(mount)) return mount.source;
  std::optional<std::string> name = deviceNameOf(*source);
  if (source->device == 0 || imageBehind(source->device)) return name;
  struct stat status = {};
  const bool isNode = mount.source.rfind("/dev/", 0) == 0 && stat(mount.source.c_str(), &status) == 0 &&
                      S_ISBLK(status.st_mode) && status.st_rdev == source->device;
  return isNode ? mount.source : name;
}

// Returns a text that identifies a volume, whatever name leads to it; see mirrorKey().
std::string identityTextOf(const std::string& device) {
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

std::optional<std::string> labelOf(const std::string& device) {
  const std::optional<DeviceLocation> location = locateDevice(device);
  if (!location) return std::nullopt;
  const std::optional<ProbedVolume> facts = volumeFactsOf(*location, openLocation(*location, O_RDONLY));
  return facts ? facts->label : std::nullopt;
}

std::string nameFor(const MountedVolume& volume) {
  return repairedUtf8(lastComponent(volume.mountPath.value_or(volume.mountedFrom)));
}

// Absent if the device of the mirror holds another volume now.
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
  const std::optional<ProbedVolume> facts = volumeFactsOf(*location, opened);
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
  for (const MountedSource& mounted : bySource(table)) {
    const MountPoint& first = *mounted.mounts.front();
    const std::optional<std::string> device = sourceNameOf(first, mounted.source);
    if (!device) continue;
    const bool byName = isNamedByDriver(first);
    if (!listed.insert(byName ? *device : identityTextOf(*device)).second) continue;
    MountedVolume volume;
    volume.mountedFrom = *device;
    findPlace(mounted.mounts, volume);
    const std::optional<std::string> label = byName ? std::nullopt : labelOf(*device);
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
