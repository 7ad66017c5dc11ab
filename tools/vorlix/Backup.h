// SPDX-License-Identifier: Apache-2.0
//
// Where a command keeps what it replaces, so that `vorlix undo` can restore it.
#pragma once

#include <Vorlix/platform/KeptChange.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "CommandLine.h"

namespace vorlix::tool {

/// What the user chose by --backup and --no-backup.
struct BackupChoice {
  std::string folder;
  bool isOff = false;
};

/// Adds the two options to a command. The choice outlives the command line's parsing.
std::shared_ptr<BackupChoice> addBackupOptions(Command& command);

ChangeBackup changeBackup(const BackupChoice& choice);

/// Returns what people give to `vorlix undo` for a backup: its name if it is in the state folder, else its path.
std::string undoArgument(const std::string& kept);

/// Prints how to undo what was done. Prints nothing if `kept` is empty.
void printUndo(const std::string& kept, std::FILE* output = stdout);

/// A backup of files of a mounted volume, made before they change. It is removed again unless the change is made.
class FileBackup {
 public:
  /// Throws Failure.
  FileBackup(const std::string& title, const std::vector<FileChange>& files, const ChangeBackup& backup);
  ~FileBackup();
  FileBackup(const FileBackup&) = delete;
  FileBackup& operator=(const FileBackup&) = delete;

  /// A part of the change may be on the medium from now on. @return the folder of the backup; empty if there is none.
  const std::string& keep();

 private:
  std::string kept_;
  bool isNeeded_ = false;
};

}  // namespace vorlix::tool
