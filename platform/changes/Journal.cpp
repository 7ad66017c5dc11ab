// SPDX-License-Identifier: Apache-2.0
#include "Journal.h"

#include <Vorlix/foundation/Sha256.h>
#include <Vorlix/platform/FilesInPlace.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SliceName.h>
#include <Vorlix/platform/SystemError.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "JournalFolder.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr size_t kLargestManifest = size_t{256} * 1024 * 1024;

Descriptor openForReading(const std::string& path) {
  return Descriptor(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

bool readWhole(const std::string& path, std::string& text) {
  const Descriptor file = openForReading(path);
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (static_cast<uint64_t>(status.st_size) > kLargestManifest) return false;
  text.resize(static_cast<size_t>(status.st_size));
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t got = read(file.get(), text.data() + done, text.size() - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

ChangeFailure damaged(const std::string& folder) {
  return {folder, "the journal is damaged", kNothingWritten};
}

// Reads `length` bytes of a journal's file and compares them with their hash.
std::optional<ChangeFailure> readHashed(const std::string& folder, int file, uint64_t place, uint64_t length,
                                        const std::string& hash, std::vector<uint8_t>& bytes) {
  bytes.resize(static_cast<size_t>(length));
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t got = pread(file, bytes.data() + done, bytes.size() - done, static_cast<off_t>(place + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return journalFailure(folder, errno);
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  if (done == bytes.size() && sha256(bytes) == hash) return std::nullopt;
  return damaged(folder);
}

// Copies a file of a journal. @return false with `errno` set.
bool copyFile(const std::string& from, const std::string& to) {
  const Descriptor source = openForReading(from);
  const Descriptor target = source ? newJournalFile(to) : Descriptor();
  if (!target) return false;
  std::vector<uint8_t> bytes(kLongestRun);
  for (;;) {
    const ssize_t got = read(source.get(), bytes.data(), bytes.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return platform().filesInPlace->sync(target.get()) == 0;
    if (!writeJournalBytes(target.get(), bytes.data(), static_cast<size_t>(got))) return false;
  }
}

// A backup is found again from any working folder.
std::string absoluteName(const std::string& device) {
  std::error_code error;
  const std::optional<SliceName> slice = parseSliceName(device);
  const bool isImage = fs::is_regular_file(device, error) || (slice && fs::is_regular_file(slice->whole, error));
  const fs::path absolute = isImage ? fs::absolute(device, error) : fs::path();
  return absolute.empty() ? device : absolute.string();
}

// Makes a folder for backups that the user named.
std::optional<ChangeFailure> makeNamedFolder(const std::string& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) return ChangeFailure{folder, SystemError{error.value()}.reason(), kNothingWritten};
  return std::nullopt;
}

}  // namespace

std::optional<ChangeFailure> Journal::read(const JournalRun& run, Image image, std::vector<uint8_t>& bytes) const {
  const int file = image == Image::before ? before_.get() : after_.get();
  return readHashed(folder_, file, run.place, run.length, image == Image::before ? run.before : run.after, bytes);
}

std::optional<ChangeFailure> Journal::read(const JournalFile& file, std::vector<uint8_t>& bytes) const {
  struct stat status = {};
  if (fstat(before_.get(), &status) != 0) return journalFailure(folder_, errno);
  const auto size = static_cast<uint64_t>(status.st_size);
  if (file.place > size || file.length > size - file.place) return damaged(folder_);
  return readHashed(folder_, before_.get(), file.place, file.length, file.before, bytes);
}

void Journal::remove() {
  removeJournal(folder_);
}

std::optional<ChangeFailure> Journal::finish() {
  std::string backups;
  if (!manifest_.isKept) {
    remove();
    return std::nullopt;
  }
  auto failure = makeBackupsFolder(backups);
  const std::string kept = backups + "/" + fs::path(folder_).filename().string();
  if (!failure && rename(folder_.c_str(), kept.c_str()) != 0) failure = journalFailure(backups, errno);
  if (failure && manifest_.content) {  // it stays what it was, from which the restore can still be given up
    failure->state = "everything is written, but the journal could not become a backup";
    return failure;
  }
  if (failure) {
    remove();
    failure->state = "the change is made, but there is no backup to undo it with";
    return failure;
  }
  const bool isSynced = syncJournalFolder(backups) && syncJournalFolder(fs::path(folder_).parent_path().string());
  folder_ = kept;
  if (isSynced) return std::nullopt;
  failure = journalFailure(kept, errno);
  failure->state = "the change is made, but its backup may not be on the medium";
  return failure;
}

std::optional<ChangeFailure> Journal::copyTo(const std::string& folder, std::string& copy) const {
  if (auto failure = makeNamedFolder(folder)) return failure;
  removeLeftoversIn(folder);
  copy = (fs::path(folder) / fs::path(folder_).filename()).string();
  const std::string unfinished = copy + kUnfinishedJournal;
  if (mkdir(unfinished.c_str(), 0700) != 0) return journalFailure(folder, errno);
  const Descriptor lock = lockJournalFolder(unfinished);
  const bool isThere = lock &&
                       std::all_of(std::begin(kJournalFiles), std::end(kJournalFiles),
                                   [&](const char* name) { return copyFile(folder_ + name, unfinished + name); }) &&
                       syncJournalFolder(unfinished) && ::rename(unfinished.c_str(), copy.c_str()) == 0;
  if (isThere && syncJournalFolder(folder)) return std::nullopt;
  const auto failure = journalFailure(folder, errno);
  removeJournalFiles(isThere ? copy : unfinished);
  return failure;
}

bool Journal::lock() {
  lock_ = lockJournalFolder(folder_);
  // Whoever had it may have finished and removed it since it was read.
  return lock_ && isCompleteJournal(folder_);
}

std::unique_ptr<Journal> Journal::open(const std::string& folder, std::optional<ChangeFailure>& failure) {
  failure.reset();
  std::unique_ptr<Journal> journal(new Journal);
  journal->folder_ = folder;
  std::string text;
  auto manifest = readWhole(folder + kJournalManifest, text) ? parseManifest(text, kLongestRun) : std::nullopt;
  if (manifest) {
    journal->manifest_ = *std::move(manifest);
    journal->before_ = openForReading(folder + kJournalBefore);
    journal->after_ = openForReading(folder + kJournalAfter);
    if (journal->before_ && journal->after_) return journal;
  }
  failure = damaged(folder);
  return nullptr;
}

std::optional<ChangeFailure> JournalWriter::begin(const std::string& title, const ChangeBackup& backup,
                                                  std::unique_ptr<JournalWriter>& writer) {
  std::string folder;
  // Where it will go is made first: a change that cannot be undone afterwards is not begun.
  if (backup.place == ChangeBackup::Place::stateFolder) {
    if (auto failure = makeBackupsFolder(folder)) return failure;
  }
  if (auto failure = makeJournalsFolder(folder)) return failure;
  if (auto failure = beginIn(folder, title, writer)) return failure;
  writer->journal_->manifest_.isKept = backup.place == ChangeBackup::Place::stateFolder;
  writer->journal_->manifest_.partOf = backup.partOf;
  return std::nullopt;
}

std::optional<ChangeFailure> JournalWriter::beginBackup(const std::string& title, const ChangeBackup& backup,
                                                        std::unique_ptr<JournalWriter>& writer) {
  std::string folder = backup.folder;
  const bool isNamed = backup.place == ChangeBackup::Place::folder;
  if (auto failure = isNamed ? makeNamedFolder(folder) : makeBackupsFolder(folder)) return failure;
  if (auto failure = beginIn(folder, title, writer)) return failure;
  writer->journal_->manifest_.partOf = backup.partOf;
  return std::nullopt;
}

std::optional<ChangeFailure> JournalWriter::beginIn(const std::string& parent, const std::string& title,
                                                    std::unique_ptr<JournalWriter>& writer) {
  // Between its creation and its own lock, a new folder would look like a leftover.
  const Descriptor all(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!all || flock(all.get(), LOCK_EX) != 0) return journalFailure(parent, errno);
  removeLeftoversIn(parent);
  std::unique_ptr<Journal> journal(new Journal);
  const JournalTime now = journalTime();
  journal->manifest_.title = title;
  journal->manifest_.begun = now.text;
  const std::string folder = parent + "/" + now.name + kUnfinishedJournal;
  if (mkdir(folder.c_str(), 0700) != 0) return journalFailure(folder, errno);
  journal->folder_ = folder;
  writer.reset(new JournalWriter);
  writer->journal_ = std::move(journal);
  Journal& begun = *writer->journal_;
  begun.lock_ = lockJournalFolder(folder);
  if (begun.lock_) begun.before_ = newJournalFile(folder + kJournalBefore);
  if (begun.before_) begun.after_ = newJournalFile(folder + kJournalAfter);
  if (begun.after_) return std::nullopt;
  const int reason = errno;
  writer.reset();
  return journalFailure(folder, reason);
}

JournalWriter::~JournalWriter() {
  if (journal_) removeJournalFiles(journal_->folder_);
}

size_t JournalWriter::addDevice(const std::string& name, const DeviceIdentity& identity) {
  journal_->manifest_.devices.push_back({name, identity});
  return journal_->manifest_.devices.size() - 1;
}

std::optional<ChangeFailure> JournalWriter::add(size_t device, uint64_t offset, std::span<const uint8_t> before,
                                                std::span<const uint8_t> after, const std::string& reason) {
  for (size_t at = 0; at < before.size(); at += kLongestRun) {
    const size_t length = std::min<size_t>(kLongestRun, before.size() - at);
    const auto from = before.subspan(at, length);
    const auto to = after.subspan(at, length);
    const bool isWritten = writeJournalBytes(journal_->before_.get(), from.data(), length) &&
                           writeJournalBytes(journal_->after_.get(), to.data(), length);
    if (!isWritten) return journalFailure(journal_->folder_, errno);
    journal_->manifest_.runs.push_back({device, offset + at, length, place_, reason, sha256(from), sha256(to)});
    place_ += length;
  }
  return std::nullopt;
}

std::optional<ChangeFailure> JournalWriter::add(const DiskChange& change, bool withUnchanged) {
  for (const DeviceChange& device : change.devices) {
    const auto identity = device.handle->identity();
    if (!identity) return ChangeFailure{device.device, SystemError{errno}.reason(), kNothingWritten};
    const size_t index = addDevice(device.device, *identity);
    for (const ByteChange& run : device.bytes) {
      if (!withUnchanged && run.before == run.after) continue;
      if (auto failure = add(index, run.offset, run.before, run.after, run.reason)) return failure;
    }
  }
  return std::nullopt;
}

std::optional<ChangeFailure> JournalWriter::add(const FileChange& file) {
  JournalFile added;
  added.change = file;
  added.change.before.reset();
  added.place = place_;
  if (file.before) {
    added.length = file.before->size();
    added.before = sha256(*file.before);
    if (!writeJournalBytes(journal_->before_.get(), file.before->data(), file.before->size())) {
      return journalFailure(journal_->folder_, errno);
    }
    place_ += added.length;
  }
  journal_->manifest_.files.push_back(std::move(added));
  return std::nullopt;
}

std::optional<ChangeFailure> JournalWriter::commit(std::unique_ptr<Journal>& journal) {
  const std::string folder = journal_->folder_;
  JournalManifest manifestWithPaths = journal_->manifest_;
  for (JournalDevice& device : manifestWithPaths.devices) device.name = absoluteName(device.name);
  const std::string text = textOfManifest(manifestWithPaths);
  if (text.size() > kLargestManifest) return ChangeFailure{folder, "the change has too many parts", kNothingWritten};
  const Descriptor manifest = newJournalFile(folder + kJournalManifest);
  const bool isOnMedium =
      manifest && writeJournalBytes(manifest.get(), reinterpret_cast<const uint8_t*>(text.data()), text.size()) &&
      platform().filesInPlace->sync(manifest.get()) == 0 &&
      platform().filesInPlace->sync(journal_->before_.get()) == 0 &&
      platform().filesInPlace->sync(journal_->after_.get()) == 0 && syncJournalFolder(folder);
  if (!isOnMedium) return journalFailure(folder, errno);
  const std::string complete = folder.substr(0, folder.size() - std::strlen(kUnfinishedJournal));
  if (rename(folder.c_str(), complete.c_str()) != 0) return journalFailure(folder, errno);
  journal_->folder_ = complete;
  if (!syncJournalFolder(fs::path(complete).parent_path().string())) return journalFailure(folder, errno);
  journal = std::move(journal_);
  return std::nullopt;
}

}  // namespace vorlix
