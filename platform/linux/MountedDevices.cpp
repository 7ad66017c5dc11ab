// SPDX-License-Identifier: Apache-2.0
#include "MountedDevices.h"

#include <fcntl.h>

#include "DeviceFacts.h"
#include "DeviceNames.h"
#include "MirrorLookup.h"
#include "MountTable.h"
#include "OpenedDevice.h"
#include "VolumeOrigin.h"

namespace vorlix {
namespace {

constexpr uint32_t kMostSlices = 128;

// The name of the slice that starts at `offset`, or of the whole image for 0.
std::optional<std::string> nameInside(const std::string& whole, uint64_t offset) {
  std::optional<DeviceLocation> location = locateDevice(whole);
  if (!location) return std::nullopt;
  if (offset == 0) return whole;
  for (uint32_t slice = 1; slice <= kMostSlices; ++slice) {
    location->slice = slice;
    const std::optional<OpenedDevice> device = openLocation(*location, O_RDONLY);
    if (device && device->window.offset == offset) return whole + "s" + std::to_string(slice);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> imageBehind(dev_t device) {
  const std::optional<LoopBacking> backing = loopBackingOf(device);
  return backing ? nameInside(backing->path, backing->offset) : std::nullopt;
}

std::optional<std::string> deviceNameOf(const MountSource& source) {
  if (source.device == 0) {
    return source.file.empty() ? std::nullopt : nameInside(source.file, source.origin.offset);
  }
  if (std::optional<std::string> image = imageBehind(source.device)) return image;
  return nodeOfDevice(source.device);
}

std::optional<std::string> deviceMountedAt(const std::string& path) {
  if (const std::optional<MirrorState> mirror = findMirrorAt(path)) return mirror->device;
  const std::optional<MountPoint> mount = mountAt(path);
  const std::optional<MountSource> source = mount ? MountSources().of(*mount) : std::nullopt;
  return source ? deviceNameOf(*source) : std::nullopt;
}

}  // namespace vorlix
