// SPDX-License-Identifier: Apache-2.0
/// @file
/// A change to a disk as a value: which bytes change on which opened devices, and why. Describing a change writes
/// nothing. applyChange() makes it, with a journal, so that an interrupted change can be finished and a finished one
/// can be undone (KeptChange.h).
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/platform/DeviceFile.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// A run of bytes that changes. `before` and `after` have the same length.
struct ByteChange {
  uint64_t offset = 0;          ///< bytes from the start of the device it belongs to
  std::vector<uint8_t> before;  ///< what the device has now
  std::vector<uint8_t> after;   ///< what it will have
  std::string reason;           ///< for people: "hybrid MBR in sector 0"
};

/// What changes on one device, in the order in which it is written.
struct DeviceChange {
  std::string device;                    ///< the name by which people know it
  std::shared_ptr<DeviceHandle> handle;  ///< the handle it was looked at through, open for reading and writing
  std::vector<ByteChange> bytes;         ///< runs that do not overlap
};

/// What one command does, in the order in which it is written.
struct VORLIX_EXPORT DiskChange {
  std::string title;                  ///< for people, who may meet it in a journal: "hybrid MBR of mac.img"
  std::vector<DeviceChange> devices;  ///< in the order in which they are written

  /// No byte would change.
  bool empty() const;
};

/// The state of a failure before the first write.
inline constexpr const char* kNothingWritten = "nothing was written";

/// The state of a failure after which everything was put back.
inline constexpr const char* kPutBack = "what was written was put back, so that nothing is changed";

/// Why a change was not made.
struct ChangeFailure {
  std::string subject;  ///< the device or file
  std::string reason;   ///< for people, without a full stop
  std::string state;    ///< what was and what was not written, kNothingWritten included
};

/// Where the journal of a change is kept after the change.
struct ChangeBackup {
  /// A place for the journal.
  enum class Place {
    none,         ///< nowhere: the change cannot be undone
    stateFolder,  ///< beside the journals in the user's state folder
    folder        ///< in `folder`, which is created if it is missing
  };
  Place place = Place::none;  ///< where
  std::string folder;         ///< path, of Place::folder alone
  std::string partOf = {};    ///< name of the larger change's journal (its folder without the path); usually empty
};

/// Makes a change, or leaves the devices as they were.
///
/// 1. The bytes on the devices are compared with `before`; a difference refuses the change.
/// 2. Both images are journalled and synced. A backup in a folder of the caller's choice is complete before step 3.
/// 3. Runs that change are written in order, the devices are synced, and the runs are read back from the medium.
/// 4. The journal becomes the backup, or is removed.
///
/// If step 3 fails, what was written is restored. If that fails as well, the journal stays, and the next command on
/// the disk finishes the change.
/// @param kept  receives the folder of the backup; empty if none was asked for or nothing changes.
/// @return absent when the change is on the medium.
VORLIX_EXPORT std::optional<ChangeFailure> applyChange(const DiskChange& change, const ChangeBackup& backup,
                                                       std::string& kept);

/// Does the same without a backup.
VORLIX_EXPORT std::optional<ChangeFailure> applyChange(const DiskChange& change);

/// A change that a process began and did not finish.
struct InterruptedChange {
  std::string title;    ///< of the change, for people
  std::string journal;  ///< folder of its journal
  bool isLong = false;  ///< only its own command finishes it, LongChange.h
};

/// Returns this user's interrupted changes of the disk behind `device`. Writes nothing.
VORLIX_EXPORT std::vector<InterruptedChange> interruptedChanges(DeviceHandle& device);

/// Settles those changes before anything else is written to the disk: finishes a change that was begun, and removes the
/// journal of one that was not. `device` is the whole disk or a slice, open for reading and writing; `name` is its
/// name.
///
/// Fails while the process that began a change still runs, and if the bytes on the disk are neither those before nor
/// those after the change, because somebody else wrote there meanwhile. A long change that this process has open
/// (LongChange.h) is left alone.
/// @param finished  receives the titles of the changes that were finished.
VORLIX_EXPORT std::optional<ChangeFailure> settleInterruptedChanges(const std::string& name, DeviceHandle& device,
                                                                    std::vector<std::string>& finished);

}  // namespace vorlix
