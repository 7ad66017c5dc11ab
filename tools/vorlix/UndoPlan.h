// SPDX-License-Identifier: Apache-2.0
//
// Undoes a change that was made, from its backup.
#pragma once

#include <Vorlix/platform/KeptChange.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "MountedSlice.h"
#include "VolumeFolder.h"

namespace vorlix::tool {

/// What a place has that a change wrote to.
enum class Standing {
  changed,   ///< what the change wrote: it can be undone
  restored,  ///< what was there before the change
  other      ///< something else: somebody changed it since
};

/// The undo of changes to the bytes of devices.
class DeviceUndo {
 public:
  /// Opens the devices and compares all places. Throws Failure if a device cannot be opened, or if somebody has changed
  /// a place since. @param on  the whole disk that has the bytes now; empty for the devices of the change
  DeviceUndo(const KeptChange& kept, const std::string& on, bool writes);

  /// What is to be written.
  const DiskChange& change() const { return change_; }

 private:
  std::shared_ptr<DeviceHandle> open(const std::string& device, bool writes);

  DiskChange change_;
};

/// The undo of changes to files of a mounted volume. Mounts the volume if it is not mounted.
class FileUndo {
 public:
  /// Compares all files. Throws Failure like DeviceUndo.
  /// @param on  the volume, by its folder or device; empty for the device of the change
  FileUndo(const KeptChange& kept, const std::string& on);

  /// One file or folder that is to be restored or removed.
  struct Step {
    const FileChange* file;
    std::string path;  ///< on this machine
  };
  const std::vector<Step>& steps() const { return steps_; }

  /// Restores and removes, last change first. @return the folders that stay because they have other files.
  std::vector<std::string> run();

 private:
  std::optional<VolumeFolder> parentOf(const FileChange& file) const;
  Standing standingOf(const FileChange& file) const;

  std::unique_ptr<MountedSlice> mounted_;
  std::string root_;
  bool isCaseBlind_ = false;
  std::vector<Step> steps_;
};

/// What has become of a change, without changing anything.
enum class UndoState { undoable, undone, changed, unreachable };
UndoState stateOf(const KeptChange& kept);

}  // namespace vorlix::tool
