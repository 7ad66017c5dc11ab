// SPDX-License-Identifier: Apache-2.0
#include "Backup.h"

#include <cstdio>
#include <filesystem>

#include "DeviceChanges.h"
#include "Text.h"

namespace vorlix::tool {

std::shared_ptr<BackupChoice> addBackupOptions(Command& command) {
  const auto choice = std::make_shared<BackupChoice>();
  const Option folder = command
                            .addOption("--backup", choice->folder,
                                       "Folder for the backup that `vorlix undo` needs (default: in the "
                                       "user's state folder)")
                            .completes(ValueKind::folder);
  command.addFlag("--no-backup", choice->isOff, "Keep no backup; the change cannot be undone").excludes(folder);
  return choice;
}

ChangeBackup changeBackup(const BackupChoice& choice) {
  if (choice.isOff) return {};
  if (choice.folder.empty()) return {ChangeBackup::Place::stateFolder, ""};
  return {ChangeBackup::Place::folder, choice.folder};
}

std::string undoArgument(const std::string& kept) {
  return isKeptInStateFolder(kept) ? std::filesystem::path(kept).filename().string() : kept;
}

void printUndo(const std::string& kept, std::FILE* output) {
  if (!kept.empty()) std::fprintf(output, "Undo       vorlix undo %s\n", printable(undoArgument(kept)).c_str());
}

FileBackup::FileBackup(const std::string& title, const std::vector<FileChange>& files, const ChangeBackup& backup) {
  if (const auto failure = keepFileChanges(title, files, backup, kept_)) fail(*failure);
}

FileBackup::~FileBackup() {
  if (!isNeeded_ && !kept_.empty()) dropKeptChange(kept_);
}

const std::string& FileBackup::keep() {
  isNeeded_ = true;
  return kept_;
}

}  // namespace vorlix::tool
