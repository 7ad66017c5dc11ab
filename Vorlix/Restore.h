// SPDX-License-Identifier: Apache-2.0
/// @file
/// Restores a volume from a source: its content first, then the small structures that a start needs. A restore is
/// journalled; an interrupted one goes on from the last piece that is on the medium, and its structures can be undone.
///
/// Order on the medium: the journal; zeros over the volume's first sector, so that no half-written volume looks like a
/// whole one; the content; the structures in the order that the plan has, usually the boot sectors and then sector 0.
/// The content is read back and compared before the structures are written.
#pragma once

#include <Vorlix/ImageSource.h>
#include <Vorlix/foundation/Export.h>
#include <Vorlix/platform/LongChange.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// What a restore writes.
struct RestorePlan {
  std::string source;     ///< what the user named; for a file its absolute path, so that a resumed restore finds it
  DiskChange structures;  ///< `before` is what the devices have now; the first device is the volume, and has a run at 0
  ChangeBackup backup;    ///< where the old structures are kept
  uint32_t image = 0;     ///< the image of a WIM, so that a resumed restore applies the same; 0 for other sources

  /// What the caller does once the volume is whole, before anything outside of it is written: it puts start files on
  /// another volume. A word of the caller's, which the journal keeps for a resumed restore; empty for nothing.
  std::string between;
};

/// How far a restore is.
struct RestoreProgress {
  /// What is being done with the content. Comparing begins at byte 0 again.
  enum class Phase { writing, comparing };
  Phase phase = Phase::writing;  ///< comparing follows writing, where it was asked for
  uint64_t done = 0;             ///< bytes of the volume
  uint64_t total = 0;            ///< 0 if the source does not tell
};

/// Called between pieces. Returns whether to go on.
using RestoreObserver = std::function<bool(const RestoreProgress&)>;

/// What became of a restore.
struct RestoreResult {
  /// How it ended.
  enum class End {
    done,       ///< everything is on the medium
    paused,     ///< the volume is on the medium; now is the time for what the plan has `between`, then finishRestore()
    cancelled,  ///< the observer has said so; the journal is there
    failed
  };
  End end = End::failed;  ///< says which of the other members count
  ChangeFailure failure;  ///< of a failed one
  std::string journal;   ///< folder of the journal from which it can go on; empty if nothing was written, or at the end
  std::string kept;      ///< folder of the backup of the structures; empty if there is none
  uint64_t size = 0;     ///< bytes of the volume that are on the medium
  bool isBlank = false;  ///< of one that is not done: the volume has no boot sector, so nothing takes it for whole
  bool isCompared = false;           ///< of one that is done: all of its content was read back and compared
  std::unique_ptr<LongChange> rest;  ///< of a paused one: its journal, for finishRestore()

  /// Of a paused one: what its devices are, in the order of the structures, for finishRestore().
  std::vector<std::optional<DeviceIdentity>> devices;
};

/// Restores a volume. `source` is at its beginning.
/// @param compare  whether the content is read back. The structures always are.
VORLIX_EXPORT RestoreResult restoreVolume(ImageSource& source, const RestorePlan& plan, bool compare,
                                          const RestoreObserver& observer);

/// Goes on with an interrupted restore. `source` is at its beginning, and must be the one of the journal. One that is
/// made anew (ImageFacts::isMadeAnew) is written from its first byte again. If a device is not as the restore left it,
/// nothing is written: somebody changed it, or another disk has the name now.
/// @param journal  opened by openLongChange()
/// @param handles  one for each device of its structures, open for writing
VORLIX_EXPORT RestoreResult resumeRestore(std::unique_ptr<LongChange> journal, ImageSource& source,
                                          const std::vector<std::shared_ptr<DeviceHandle>>& handles, bool compare,
                                          const RestoreObserver& observer);

/// Finishes a paused restore: writes the structures outside of the volume. Between the pause and this call, the handles
/// may be closed. While the journal is open, this process may change other volumes of the disk, and no other process
/// may. If a handle is of another disk than before the pause, nothing is written, and the journal stays: somebody
/// exchanged the disk.
/// @param paused   the result of the pause
/// @param handles  as for resumeRestore()
VORLIX_EXPORT RestoreResult finishRestore(RestoreResult paused,
                                          const std::vector<std::shared_ptr<DeviceHandle>>& handles);

/// Gives an interrupted restore up: restores the structures. What was overwritten of the volume's content is lost.
/// @param handles  as for resumeRestore()
/// @return absent if the structures are on the medium as they were; the journal is removed. Nothing is written to a
/// device
///         that is not as the restore left it.
VORLIX_EXPORT std::optional<ChangeFailure> abandonRestore(std::unique_ptr<LongChange> journal,
                                                          const std::vector<std::shared_ptr<DeviceHandle>>& handles);

}  // namespace vorlix
