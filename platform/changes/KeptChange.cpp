// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/KeptChange.h>
#include "Journal.h"
#include "JournalFolder.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <utility>

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kLargestBackup = uint64_t{1} << 30;  // what readKeptChange() takes into memory

using Image = Journal::Image;

std::optional<ChangeFailure> checkSize(const Journal& journal) {
  uint64_t size = 0;
  for (const JournalRun& run : journal.runs()) size += 2 * run.length;
  for (const JournalFile& file : journal.manifest().files) {
    size = file.length > kLargestBackup ? kLargestBackup + 1 : size + file.length;
    if (size > kLargestBackup) break;
  }
  if (size <= kLargestBackup) return std::nullopt;
  return ChangeFailure{journal.folder(), "the backup is larger than 1 GiB", kNothingWritten};
}

// The parts of a change are beside the backup that it has, or will have once it is complete.
std::set<std::string> foldersOfParts(const fs::path& folder, const std::string& backup) {
  std::set<std::string> folders;
  std::error_code error;
  const fs::path parent = fs::absolute(folder, error).parent_path();
  for (const std::string& place : {parent.string(), backup, backupsFolderFor(parent.string())}) {
    const fs::path canonical = fs::weakly_canonical(place, error);
    if (!place.empty()) folders.insert(error ? place : canonical.string());
  }
  return folders;
}

}  // namespace

std::optional<ChangeFailure> keepFileChanges(const std::string& title, const std::vector<FileChange>& files,
                                             const ChangeBackup& backup, std::string& kept) {
  kept.clear();
  if (backup.place == ChangeBackup::Place::none) return std::nullopt;
  std::unique_ptr<JournalWriter> writer;
  if (auto failure = JournalWriter::beginBackup(title, backup, writer)) return failure;
  for (const FileChange& file : files) {
    if (auto failure = writer->add(file)) return failure;
  }
  std::unique_ptr<Journal> journal;
  if (auto failure = writer->commit(journal)) return failure;
  kept = journal->folder();
  removeOldBackups();
  return std::nullopt;
}

std::vector<std::string> keptChanges() {
  return backupsInStateFolder();
}

std::optional<ChangeFailure> partsOfChange(const std::string& folder, std::vector<std::string>& parts) {
  parts.clear();
  std::optional<ChangeFailure> failure;
  const auto whole = Journal::open(folder, failure);
  if (!whole) return failure;
  const auto& content = whole->manifest().content;
  if (!content) return std::nullopt;  // a short change has no parts
  const fs::path path(folder);
  const std::string name = path.filename().string();
  std::vector<std::string> candidates;
  for (const std::string& parent : foldersOfParts(path, content->backup)) {
    if (const int error = listJournals(parent, candidates)) return journalFailure(parent, error);
  }
  for (const std::string& candidate : candidates) {
    const auto part = Journal::open(candidate, failure);
    if (part && part->manifest().partOf == name) parts.push_back(candidate);
    const bool mayBePart = fs::path(candidate).filename().string() > name;  // it was begun later
    if (!part && mayBePart && isCompleteJournal(candidate)) {
      return ChangeFailure{candidate, failure->reason + ", and it may be a part of this change", kNothingWritten};
    }
  }
  const auto nameOf = [](const std::string& part) { return fs::path(part).filename(); };
  std::sort(parts.begin(), parts.end(), [&](const auto& a, const auto& b) { return nameOf(a) < nameOf(b); });
  return std::nullopt;
}

bool isKeptInStateFolder(const std::string& folder) {
  return isBackupThere(folder);
}

std::optional<ChangeFailure> readKeptChange(const std::string& folder, KeptChange& kept) {
  std::optional<ChangeFailure> failure;
  const auto journal = Journal::open(folder, failure);
  if (!journal || (failure = checkSize(*journal))) return failure;
  kept = {};
  kept.folder = folder;
  kept.title = journal->title();
  kept.begun = journal->manifest().begun;
  kept.partOf = journal->manifest().partOf;
  kept.undo.title = "undo of " + kept.title;
  if (const auto& content = journal->manifest().content) kept.lost = journal->devices()[content->device].name;
  for (const JournalDevice& device : journal->devices()) {
    kept.undo.devices.push_back({device.name, nullptr, {}});
    kept.offsets.push_back(device.identity.offset);
  }
  for (const JournalRun& run : journal->runs()) {
    ByteChange& change = kept.undo.devices[run.device].bytes.emplace_back();
    change.offset = run.offset;
    change.reason = run.reason;
    if ((failure = journal->read(run, Image::after, change.before))) return failure;
    if ((failure = journal->read(run, Image::before, change.after))) return failure;
  }
  for (const JournalFile& file : journal->manifest().files) {
    FileChange& change = kept.files.emplace_back(file.change);
    if (file.before.empty()) continue;
    if ((failure = journal->read(file, change.before.emplace()))) return failure;
  }
  return std::nullopt;
}

void dropKeptChange(const std::string& folder) {
  removeJournal(folder);
}

}  // namespace vorlix
