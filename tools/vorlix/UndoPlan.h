// SPDX-License-Identifier: Apache-2.0
//
// Undoes a change that was made, from its backup.
#pragma once

#include <Vorlix/platform/KeptChange.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
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
  /// @param on  the whole disk that has the bytes now; empty for the devices of the changes
  DeviceUndo(std::string on, bool writes) : on_(std::move(on)), writes_(writes) {}

  /// Opens the devices of a change and compares all places. Throws Failure if a device cannot be opened, or if somebody
  /// has changed a place since.
  void add(const KeptChange& kept);

  /// What is to be written.
  const DiskChange& change() const { return change_; }

  /// Closes the devices; the change keeps their names.
  void close();

 private:
  std::shared_ptr<DeviceHandle> open(const std::string& device) const;

  std::string on_;
  bool writes_;
  std::shared_ptr<DeviceHandle> disk_;  // on_, once it is needed
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
  void removeLeftovers() const;
  void undo(const Step& step, std::string& state, std::vector<std::string>& left);

  const std::vector<FileChange>* files_;
  std::vector<std::string> made_;  // the change's new files, and what they are called before they are complete
  std::unique_ptr<MountedSlice> mounted_;
  std::string root_;
  bool isCaseBlind_ = false;
  std::vector<Step> steps_;
};

/// The undo of a change and of its parts. Its bytes are restored as one change.
class WholeUndo {
 public:
  /// Opens the devices, mounts the volumes and compares all places. Throws Failure like DeviceUndo.
  /// @param changes  the change comes first, if its own bytes are to be restored
  /// @param on       the whole disk of the change, or for a change to files the volume; empty for that of the change
  WholeUndo(std::vector<KeptChange> changes, std::string on, bool writes);

  const DiskChange& bytes() const { return devices_.change(); }
  std::vector<FileUndo::Step> steps() const;  ///< with files, in the order of the changes
  bool isNeeded() const { return !bytes().empty() || !steps().empty(); }

  /// What was done.
  struct Done {
    std::string redo;               ///< folder of the backup of the bytes
    std::vector<std::string> left;  ///< folders that stay because they have other files
  };

  /// Restores the files, then the bytes. Throws Failure.
  /// @param backup  where the bytes that are there now are kept
  Done run(const ChangeBackup& backup);

  /// Removes the backups that are in the state folder: everything is as it was before the change.
  void forget();

 private:
  std::string volumeWithFilesOf(const KeptChange& kept) const;

  std::vector<KeptChange> changes_;
  std::string on_;
  DeviceUndo devices_;
  std::vector<std::unique_ptr<FileUndo>> files_;  // point into changes_
};

/// What has become of a change, without changing anything.
enum class UndoState { undoable, undone, changed, unreachable };
UndoState stateOf(const KeptChange& kept);

}  // namespace vorlix::tool
