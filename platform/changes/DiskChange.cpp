// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/DiskChange.h>

#include <utility>

#include "Journal.h"
#include "JournalApplication.h"
#include "JournalFolder.h"

namespace vorlix {

bool DiskChange::empty() const {
  for (const DeviceChange& device : devices) {
    for (const ByteChange& run : device.bytes) {
      if (run.before != run.after) return false;
    }
  }
  return true;
}

std::optional<ChangeFailure> applyJournal(Journal& journal, const std::vector<DeviceHandle*>& handles,
                                          const ChangeBackup& backup, std::string& kept) {
  kept.clear();
  if (backup.place == ChangeBackup::Place::folder) {
    if (auto failure = journal.copyTo(backup.folder, kept)) {
      journal.remove();
      return failure;
    }
  }
  const std::string folder = journal.folder();
  auto failure = JournalApplication(journal, handles).run();
  if (failure && !kept.empty() && !isJournalThere(folder)) removeJournal(std::exchange(kept, ""));
  if (failure || backup.place != ChangeBackup::Place::stateFolder) return failure;
  kept = journal.folder();
  removeOldBackups();
  return std::nullopt;
}

std::optional<ChangeFailure> applyChange(const DiskChange& change) {
  std::string kept;
  return applyChange(change, {}, kept);
}

std::optional<ChangeFailure> applyChange(const DiskChange& change, const ChangeBackup& backup, std::string& kept) {
  kept.clear();
  if (change.empty()) return std::nullopt;
  std::unique_ptr<JournalWriter> writer;
  if (auto failure = JournalWriter::begin(change.title, backup, writer)) return failure;
  if (auto failure = writer->add(change, false)) return failure;
  std::unique_ptr<Journal> journal;
  if (auto failure = writer->commit(journal)) return failure;
  std::vector<DeviceHandle*> handles;
  for (const DeviceChange& device : change.devices) handles.push_back(device.handle.get());
  return applyJournal(*journal, handles, backup, kept);
}

}  // namespace vorlix
