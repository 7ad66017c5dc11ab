// SPDX-License-Identifier: Apache-2.0
/// @file
/// Backups of changes: the journal of a change that was made, kept so that the change can be undone. docs/journal.md
/// describes the format.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/platform/DiskChange.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// A file or folder on a mounted volume that a command replaced or made.
struct FileChange {
  std::string volume;     ///< name of the volume's device; empty if the system has none for it
  std::string path;       ///< from the root of the volume: "/EFI/Microsoft/Boot/BCD"; absolute if there is no device
  bool isFolder = false;  ///< a folder that was made
  std::optional<std::vector<uint8_t>> before;  ///< content of the file that was replaced; absent if there was none
  std::string after;                           ///< SHA-256 of the new content, hexadecimal; empty for a folder
};

/// A change that was made and kept.
struct KeptChange {
  std::string folder;  ///< of its journal
  std::string title;   ///< for people: "hybrid MBR of /home/me/mac.img"
  std::string begun;   ///< "2026-11-22T01:02:03Z"
  /// What undoes it: `before` is what the change wrote, `after` is what was there. The devices have no handles yet.
  DiskChange undo;
  std::vector<std::optional<uint64_t>> offsets;  ///< of each device: bytes from the start of its disk, if known
  std::string lost;  ///< the device whose content was overwritten, which cannot be restored; empty if none was
  std::vector<FileChange> files;  ///< in the order in which they were changed
  std::string partOf;             ///< name of the journal of the change that this one is a part of; usually empty
};

/// Keeps changes to files of mounted volumes. Call it before the files change.
/// @param kept  receives the folder of the journal; empty if `backup` says to keep none.
/// @return absent if the journal is on the medium.
VORLIX_EXPORT std::optional<ChangeFailure> keepFileChanges(const std::string& title,
                                                           const std::vector<FileChange>& files,
                                                           const ChangeBackup& backup, std::string& kept);

/// Returns the folders of this user's backups in the state folder, oldest first. The newest 100 are kept there.
VORLIX_EXPORT std::vector<std::string> keptChanges();

/// Returns whether a backup is one of keptChanges(), without listing them.
VORLIX_EXPORT bool isKeptInStateFolder(const std::string& folder);

/// Finds the backups of the changes that are parts of another one (ChangeBackup::partOf): a restore puts start files on
/// another volume. Fails if it cannot be told whether there are more.
/// @param folder  of the other change's backup, or of its journal (LongChange.h)
/// @param parts   receives their folders, oldest first
VORLIX_EXPORT std::optional<ChangeFailure> partsOfChange(const std::string& folder, std::vector<std::string>& parts);

/// Reads a backup, wherever its folder is. Fails if it is damaged or larger than 1 GiB.
VORLIX_EXPORT std::optional<ChangeFailure> readKeptChange(const std::string& folder, KeptChange& kept);

/// Removes a backup: its change was not made, or it has been undone.
VORLIX_EXPORT void dropKeptChange(const std::string& folder);

}  // namespace vorlix
