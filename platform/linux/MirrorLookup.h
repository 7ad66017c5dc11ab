// SPDX-License-Identifier: Apache-2.0
//
// Finding the mirrors of this user. Nothing here changes a mirror or a volume, except that findSettledMirror() restores
// a mirror whose removal was interrupted.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "DeviceNames.h"
#include "MirrorState.h"
#include "OpenedDevice.h"

namespace vorlix {

/// Names the place of the volume in `window` of a device: the same name for every path to the device.
std::optional<std::string> mirrorKey(const DeviceLocation& location, Extent window);

/// A mirrored volume with the key of its place.
struct KnownMirror {
  std::string key;
  MirrorState state;
};

/// What has become of the volume of a mirror.
enum class MirroredVolumeIs { there, gone, replaced };

struct FoundMirror {
  KnownMirror mirror;
  MirroredVolumeIs volume = MirroredVolumeIs::there;
};

/// Returns all mirrors of this user in the order in which they were made, read without a lock. They include mirrors
/// whose device is missing or holds another volume.
std::vector<FoundMirror> findMirrors();

/// Returns the mirrors of findMirrors() whose volume is there.
std::vector<KnownMirror> allMirrors();

/// Returns the state of the volume that is at `key` now, read without a lock. Absent if that volume is not mirrored,
/// even if another volume at the same place was. If `opened` is absent because the device cannot be read, only the
/// place counts.
std::optional<MirrorState> findMirror(const std::string& key, const std::optional<OpenedDevice>& opened);

/// Like findMirror(), but never returns the place of a mirror that is being removed: waits for the unmount that is at
/// work there, and restores what an interrupted one has left.
std::optional<MirrorState> findSettledMirror(const std::string& key, const std::optional<OpenedDevice>& opened);

/// Like findMirror(), for the volume that is mirrored in `folder`.
std::optional<MirrorState> findMirrorAt(const std::string& folder);

}  // namespace vorlix
