// SPDX-License-Identifier: Apache-2.0
/// @file
/// Backups of volumes, in formats that other tools read (docs/backup.md): a folder with the volume as zstd frames, its
/// block map, and the small structures that a start from it needs.
///
/// Looking and saving are two steps: planBackup() looks and writes nothing, runBackup() saves what was looked at
/// through the same handle. Nothing here prints. Devices, locks, SHA-256, zstd and syncing are ports; files are written
/// with the POSIX calls.
#pragma once

#include <Vorlix/Allocation.h>
#include <Vorlix/foundation/Export.h>
#include <Vorlix/platform/DeviceFile.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// What the user asks for.
struct BackupRequest {
  std::string volume;  ///< a slice of a disk or disk image, or an image of one volume
  std::string folder;  ///< to be made; its parent exists
  /// Save a volume that is mounted for writing, or on which a change was cut off: what is saved may be torn. Also saves
  /// the rest where a small structure cannot be read, and what is there of a truncated volume.
  bool force = false;
};

/// Why a backup was not made, or could not be examined.
struct BackupFailure {
  std::string subject;       ///< the device, file or folder
  std::string reason;        ///< for people, without a full stop
  bool isCancelled = false;  ///< the host asked for it
  bool isThere = false;      ///< the backup is complete under its name, but a power failure may take the name away
};

/// A small structure that is saved beside the volume's content.
struct BackupPart {
  std::string key;                       ///< in the manifest: "bootStore"
  std::string file;                      ///< "BCD"
  std::optional<uint64_t> diskOffset;    ///< where the bytes stand on the whole disk, of those that are a run of it
  std::optional<uint64_t> volumeOffset;  ///< likewise on the volume
  std::vector<uint8_t> bytes;            ///< the content of the file
  std::string missing;                   ///< why there is none; empty where there is
  bool isUnread = false;                 ///< missing because reading failed: nobody knows whether there is one
};

/// What will be saved. Holds the volume open, with a shared lock.
struct BackupPlan {
  BackupRequest request;                 ///< what was asked for
  std::string name;                      ///< of the volume, as disk arbitration has it
  std::string wholeDisk;                 ///< of its disk; equals `name` for an image of one volume
  uint64_t size = 0;                     ///< of the volume in bytes
  uint32_t sectorSize = 0;               ///< bytes of a logical block of the disk
  Allocation allocation;                 ///< ranges are whole sectors of 512 bytes, but for the volume's end
  std::vector<BackupPart> parts;         ///< the small files beside the volume
  std::vector<std::string> warnings;     ///< what `force` has let pass
  std::shared_ptr<DeviceHandle> volume;  ///< open for reading; runBackup() reads through it
};

/// Looks at a volume. Refuses a folder that exists, a whole disk with a partition table, a volume that is locked, and,
/// without `force`, one that is mounted for writing, or whose small structures cannot be read.
/// @return why not; absent for success.
VORLIX_EXPORT std::optional<BackupFailure> planBackup(const BackupRequest& request, BackupPlan& plan);

/// How far a backup or its verification is.
struct BackupProgress {
  uint64_t done = 0;   ///< bytes of what is in use that were read
  uint64_t total = 0;  ///< all of them
};

/// Called on the calling thread, some times a second while there is progress. Returning false cancels.
using BackupProgressCallback = std::function<bool(const BackupProgress&)>;

/// What became of a backup.
struct BackupResult {
  uint64_t packedSize = 0;  ///< bytes of the packed volume
};

/// Saves a volume. Reading, hashing and packing, and writing go on at the same time on threads that end before the call
/// returns; memory stays below 128 MiB.
///
/// The folder has its name when all files in it are complete and synced. Until then it is called `<folder>.new`; after
/// a failure or cancellation nothing is left. What a killed run has left is removed by the next one for the same
/// folder.
/// @return why there is no backup; absent for success.
VORLIX_EXPORT std::optional<BackupFailure> runBackup(const BackupPlan& plan, const BackupProgressCallback& progress,
                                                     BackupResult& result);

/// One thing that is wrong with a backup.
struct BackupFinding {
  std::string file;  ///< its name in the folder
  std::string text;  ///< for people: what is wrong with it
};

/// Reads a backup and compares everything with its manifest and block map: sizes and SHA-256 of all files, each frame's
/// checksum, SHA-256 of all ranges, and zeros everywhere else. Writes nothing.
/// @param findings  what is wrong, at most 16 of them; empty for a backup that is whole.
/// @return why it could not be examined: there is none, or reading failed.
VORLIX_EXPORT std::optional<BackupFailure> verifyBackup(const std::string& folder,
                                                        const BackupProgressCallback& progress,
                                                        std::vector<BackupFinding>& findings);

}  // namespace vorlix
