// SPDX-License-Identifier: Apache-2.0
#include "Arbitration.h"

#include <Vorlix/platform/MountedVolumes.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

#include "DiskTables.h"
#include "Failure.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

struct SessionAndDisk {
  std::shared_ptr<DiskArbitrationSession> session;
  std::shared_ptr<Disk> disk;
};

SessionAndDisk openDisk(const std::string& device) {
  SessionAndDisk result;
  result.session = platform().diskArbitration->createSession();
  if (!result.session) throw Failure(device, "disk arbitration cannot be reached");
  errno = 0;
  result.disk = result.session->diskFromBSDName(device);
  if (!result.disk && errno == EACCES) throw Failure::ofErrno(device, EACCES);
  if (!result.disk) throw Failure(device, whySliceIsMissing(device).value_or("no such device or disk image"));
  return result;
}

// Starts a request and runs the thread's run loop until disk arbitration has replied.
template <typename Start>
std::optional<Dissenter> waitFor(const std::string& device, Start start) {
  constexpr std::chrono::milliseconds kStep{100};
  const SessionAndDisk opened = openDisk(device);
  const std::shared_ptr<RunLoop> loop = platform().runLoops->current();
  bool answered = false;
  std::optional<Dissenter> answer;
  opened.session->schedule(*loop, kDefaultRunLoopMode);
  start(*opened.disk, [&](const std::optional<Dissenter>& dissenter) {
    answer = dissenter;
    answered = true;
  });
  while (!answered) loop->run(kDefaultRunLoopMode, kStep);
  opened.session->unschedule(*loop, kDefaultRunLoopMode);
  return answer;
}

std::string ownName(const std::string& device, Disk& disk) {
  const std::optional<std::string> name = disk.bsdName();
  if (!name) throw Failure(device, "the device has no name");
  return *name;
}

std::string wholeName(const std::string& device, Disk& disk) {
  const std::shared_ptr<Disk> whole = disk.wholeDisk();
  const std::optional<std::string> name = whole ? whole->bsdName() : std::nullopt;
  if (!name) throw Failure(device, "the device is on no known disk");
  return *name;
}

// `disk` of `opened` is null for a slice that the disk does not have.
struct FoundSlice {
  std::string name;
  SessionAndDisk opened;
};

FoundSlice findSlice(const std::string& disk, uint32_t number) {
  FoundSlice found = {disk + "s" + std::to_string(number), openDisk(disk)};
  const auto own = found.opened.disk->wholeDisk();
  found.opened.disk = found.opened.session->diskFromBSDName(found.name);
  const auto whole = found.opened.disk ? found.opened.disk->wholeDisk() : nullptr;
  if (own && whole && whole->bsdName() != own->bsdName()) {
    throw Failure(found.name, "stands beside " + disk + " under the name of its slice " + std::to_string(number));
  }
  return found;
}

}  // namespace

std::string bsdNameOf(const std::string& device) {
  return ownName(device, *openDisk(device).disk);
}

std::string ownNameOf(const std::string& device) {
  try {
    return bsdNameOf(device);
  } catch (const Failure&) {
    constexpr std::string_view kDevices = "/dev/";
    return device.starts_with(kDevices) ? device.substr(kDevices.size()) : device;
  }
}

std::string wholeDiskNameOf(const std::string& device) {
  return wholeName(device, *openDisk(device).disk);
}

DeviceNames namesOf(const std::string& device) {
  const SessionAndDisk opened = openDisk(device);
  return {ownName(device, *opened.disk), wholeName(device, *opened.disk)};
}

std::string sliceNameOf(const std::string& disk, uint32_t number) {
  return findSlice(disk, number).name;
}

VolumeOfSlice volumeOfSlice(const std::string& disk, uint32_t number) {
  FoundSlice found;
  if (number == 0) {
    found = {disk, openDisk(disk)};
  } else {
    found = findSlice(disk, number);
  }
  VolumeOfSlice volume;
  volume.name = std::move(found.name);
  const std::shared_ptr<Disk>& slice = found.opened.disk;
  const std::optional<Dictionary> description = slice ? slice->copyVolumeDescription() : std::nullopt;
  if (!description) return volume;
  volume.isThere = true;
  volume.place.name = ownName(volume.name, *slice);
  if (const auto path = description->url(kDescriptionVolumePath)) volume.place.mountPoint = path->path();
  volume.kind = description->text(kDescriptionVolumeKind);
  volume.label = description->text(kDescriptionVolumeName);
  return volume;
}

std::string mediaContentOf(const std::string& device) {
  const SessionAndDisk opened = openDisk(device);
  const std::optional<Dictionary> description = opened.disk->copyDescription();
  return description ? description->text(kDescriptionMediaContent).value_or("") : "";
}

std::optional<std::string> volumeKindOf(const std::string& device) {
  const std::optional<Dictionary> description = openDisk(device).disk->copyDescription();
  return description ? description->text(kDescriptionVolumeKind) : std::nullopt;
}

std::optional<std::string> mountPointOf(const std::string& device) {
  const SessionAndDisk opened = openDisk(device);
  const std::optional<URL> path = opened.disk->volumePath();
  return path ? std::optional<std::string>(path->path()) : std::nullopt;
}

std::string deviceMountedAt(const std::string& folder) {
  for (const MountedVolume& volume : platform().mountedVolumes->volumes()) {
    if (volume.mountPath == folder) return volume.mountedFrom;
  }
  return {};
}

DevicePlace placeOf(const std::string& device) {
  const SessionAndDisk opened = openDisk(device);
  DevicePlace place;
  place.name = ownName(device, *opened.disk);
  if (const std::optional<URL> path = opened.disk->volumePath()) place.mountPoint = path->path();
  return place;
}

std::string folderOfVolume(const std::string& volume, const std::optional<std::string>& state) {
  std::error_code unreadable;
  if (std::filesystem::is_directory(volume, unreadable)) return volume;
  const std::optional<std::string> path = mountPointOf(volume);
  if (!path) throw Failure(volume, "not mounted", state);
  return *path;
}

std::optional<Dissenter> tryMount(const std::string& device, MountFor purpose) {
  std::vector<std::string> arguments;
  if (purpose == MountFor::writing) arguments = {"nobrowse", "rw"};
  if (purpose == MountFor::reading) arguments = {"rdonly"};
  return waitFor(device, [&](Disk& disk, DiskCompletion done) { disk.mount(arguments, std::move(done)); });
}

std::optional<Dissenter> tryUnmount(const std::string& device) {
  return waitFor(device, [](Disk& disk, DiskCompletion done) { disk.unmount(std::move(done)); });
}

std::string reasonText(const Dissenter& dissenter) {
  if (!dissenter.text.empty()) return dissenter.text;
  switch (dissenter.status) {
    case kDissentBusy:
      return "the volume is in use";
    case kDissentNotFound:
      return "not found";
    case kDissentNotMounted:
      return "not mounted";
    case kDissentNotPermitted:
      return "not permitted";
    case kDissentNotPrivileged:
      return "not privileged";
    case kDissentNotWritable:
      return "not writable";
    case kDissentUnsupported:
      return "not supported";
    default:
      return "refused with status " + hexDigits(static_cast<uint32_t>(dissenter.status), 8);
  }
}

}  // namespace vorlix::tool
