// SPDX-License-Identifier: Apache-2.0
//
// The folders that journals are: their names, their files, and what interrupted processes leave of them.
#pragma once

#include <Vorlix/platform/Descriptor.h>
#include <Vorlix/platform/DiskChange.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

inline constexpr const char* kJournalManifest = "/manifest.json";
inline constexpr const char* kJournalBefore = "/before.bin";
inline constexpr const char* kJournalAfter = "/after.bin";
inline constexpr const char* kJournalPieces = "/pieces.txt";  ///< of a long change only
inline constexpr const char* kJournalFiles[] = {kJournalManifest, kJournalBefore, kJournalAfter};  ///< of every journal

inline constexpr const char* kUnfinishedJournal = ".new";  ///< ends the name of one that is being written
inline constexpr const char* kRemovedJournal = ".done";    ///< ends the name of one that is being removed

/// The time at which a process begins a journal, in UTC.
struct JournalTime {
  std::string text;  ///< "2026-11-22T01:02:03Z"
  std::string name;  ///< of the journal: "20261122T010203.000000000-4711"
};
JournalTime journalTime();

/// Creates the folder of journals or of backups in the state folder if it is missing.
std::optional<ChangeFailure> makeJournalsFolder(std::string& folder);
std::optional<ChangeFailure> makeBackupsFolder(std::string& folder);

/// Returns the folder of backups beside a folder of journals. Empty for any other folder.
std::string backupsFolderFor(const std::string& journals);

/// Adds the complete journals in a folder, oldest first. None if the folder does not exist.
/// @return 0, or what `errno` has for the reason why there may be more
int listJournals(const std::string& parent, std::vector<std::string>& folders);

/// Returns those of journals in the state folder, and likewise those of backups. Throws std::system_error.
std::vector<std::string> journalsInStateFolder();
std::vector<std::string> backupsInStateFolder();

/// Returns whether a folder is still one of journalsInStateFolder(), or of backupsInStateFolder().
bool isJournalThere(const std::string& folder);
bool isBackupThere(const std::string& folder);

/// Removes the oldest backups in the state folder if there are more than 150, so that 100 are left.
void removeOldBackups();

/// Returns whether this process has a long change with that journal open: it may then write to the disk besides.
bool isOpenLongChange(const std::string& folder);

/// Returns whether a folder is a journal that is neither being written nor being removed. One that cannot be looked at
/// counts, so that it is neither overlooked nor removed.
bool isCompleteJournal(const std::string& folder);

/// Removes what interrupted processes left: incomplete journals, and complete ones that were being removed. Leaves
/// everything alone whose name is not that of a journal.
void removeLeftoversIn(const std::string& parent);

/// Removes the files of a journal and its folder.
void removeJournalFiles(const std::string& folder);

/// Removes a complete journal so that no part of it ever looks like one.
void removeJournal(const std::string& folder);

Descriptor newJournalFile(const std::string& path);
bool writeJournalBytes(int descriptor, const uint8_t* bytes, size_t count);
bool syncJournalFolder(const std::string& folder);

/// Locks a folder for this process. Empty if another one has it.
Descriptor lockJournalFolder(const std::string& folder);

/// Fails with the meaning of an `errno`; nothing was written.
ChangeFailure journalFailure(const std::string& subject, int error);

}  // namespace vorlix
