// SPDX-License-Identifier: Apache-2.0
//
// What is kept on disk of each mirrored volume, so that any process of the user finds it again.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "../posix/Descriptor.h"
#include "BlockDevices.h"
#include "Dissenters.h"
#include "MirrorTree.h"

namespace vorlix {

/// Ends the name of a mirror's folder while it is unmounted.
inline constexpr const char* kAside = " (unmounting)";

struct MirrorState {
  std::string device;     ///< BSD name of the disk or slice
  std::string folder;     ///< the mirror, which is the mount point
  bool readOnly = false;  ///< the medium could not be written when the mirror was made

  uint64_t identity = 0;  ///< of the file system (FatOutline); another one may come to lie at the same place

  /// Digest of the file system (FatOutline) as the mirror was made from it. Absent while changes are being written
  /// back: a process that was ended in the midst of that leaves it so.
  std::optional<uint64_t> digest;

  /// The tree right after the mirror was made. Empty, with `compareAll` set, once a write-back did not come to its end:
  /// every file is then compared with the volume's.
  MirrorTree baseline;
  bool compareAll = false;
};

/// Names the volume in `window` of a device among the states: the same for every path to the device.
std::optional<std::string> mirrorKey(const DeviceLocation& location, Extent window);

/// The user's states, locked against other processes and threads for as long as this object lives.
class MirrorStates {
 public:
  /// Waits for the lock. Refused where there is no folder for states.
  static Refusal lock(std::optional<MirrorStates>& states);

  /// Absent where the volume is not mirrored, or somebody removed the folder of its mirror.
  std::optional<MirrorState> load(const std::string& key) const;
  Refusal save(const std::string& key, const MirrorState& state) const;
  void remove(const std::string& key) const;

 private:
  MirrorStates(std::string folder, Descriptor lock) : folder_(std::move(folder)), lock_(std::move(lock)) {}

  std::string folder_;
  Descriptor lock_;
};

/// The state of a volume, read without a lock. Absent where it is not mirrored.
std::optional<MirrorState> findMirror(const std::string& key);

/// A mirrored volume with what it is named by, see mirrorKey().
struct KnownMirror {
  std::string key;
  MirrorState state;
};

/// The states of all volumes that this user has mirrored, in the order in which the mirrors were made, read without a
/// lock.
std::vector<KnownMirror> allMirrors();

/// The state of the volume that is mirrored in `folder`.
std::optional<MirrorState> findMirrorAt(const std::string& folder);

}  // namespace vorlix
