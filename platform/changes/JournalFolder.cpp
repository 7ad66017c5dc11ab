// SPDX-License-Identifier: Apache-2.0
#include "JournalFolder.h"

#include <Vorlix/platform/FilesInPlace.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemError.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string_view>
#include <system_error>

#include "StateFolder.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr const char* kJournals = "/journals";
constexpr const char* kBackups = "/backups";
constexpr std::ptrdiff_t kMostBackups = 150;
constexpr size_t kBackupsLeft = 100;

std::optional<ChangeFailure> makeFolder(const char* name, std::string& folder) {
  std::string reason;
  std::optional<std::string> state = existingStateFolder();
  if (!state) state = makeStateFolder(reason);
  if (!state) return ChangeFailure{"no folder for the journal", reason, kNothingWritten};
  folder = *state + name;
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return journalFailure(folder, errno);
  return std::nullopt;
}

// A journal that is overlooked may be that of an interrupted change.
std::vector<std::string> completeJournalsOf(const char* name) {
  const std::optional<std::string> state = existingStateFolder();
  std::vector<std::string> folders;
  if (!state) return folders;
  if (const int error = listJournals(*state + name, folders)) {
    throw std::system_error(error, std::generic_category(), *state + name);
  }
  return folders;
}

bool isCompleteJournalOf(const char* name, const std::string& folder) {
  const std::optional<std::string> state = existingStateFolder();
  const size_t slash = folder.rfind('/');
  return state && slash != std::string::npos && folder.substr(0, slash) == *state + name && isCompleteJournal(folder);
}

// Counts the names in a folder without looking at what they name.
std::ptrdiff_t namesIn(const std::string& folder) {
  constexpr std::ptrdiff_t kItselfAndParent = 2;
  const std::unique_ptr<DIR, int (*)(DIR*)> opened(opendir(folder.c_str()), closedir);
  std::ptrdiff_t count = -kItselfAndParent;
  while (opened && readdir(opened.get()) != nullptr) ++count;
  return count;
}

// The form of journalTime().name, perhaps with the ending of a journal on its way.
bool isJournalName(std::string_view name) {
  for (const std::string_view ending : {kUnfinishedJournal, kRemovedJournal}) {
    if (name.ends_with(ending)) name.remove_suffix(ending.size());
  }
  constexpr std::string_view kShape = "00000000T000000.000000000-";  // 0 for any digit; then the process
  if (name.size() <= kShape.size()) return false;
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  for (size_t i = 0; i < kShape.size(); ++i) {
    if (kShape[i] == '0' ? !isDigit(name[i]) : name[i] != kShape[i]) return false;
  }
  return std::all_of(name.begin() + kShape.size(), name.end(), isDigit);
}

}  // namespace

JournalTime journalTime() {
  namespace chrono = std::chrono;
  // Not by the C library's functions: they would read the machine's time zone.
  const auto now = chrono::time_point_cast<chrono::nanoseconds>(chrono::system_clock::now());
  const auto day = chrono::floor<chrono::days>(now);
  const chrono::year_month_day date(day);
  const chrono::hh_mm_ss time(now - day);
  char text[128];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                static_cast<int>(time.seconds().count()));
  char rest[64];
  std::snprintf(rest, sizeof rest, ".%09d-%d", static_cast<int>(time.subseconds().count()), getpid());
  std::string name;
  std::copy_if(text, text + std::strlen(text), std::back_inserter(name),
               [](char c) { return c != '-' && c != ':' && c != 'Z'; });
  return {text, name + rest};
}

std::optional<ChangeFailure> makeJournalsFolder(std::string& folder) {
  return makeFolder(kJournals, folder);
}

std::optional<ChangeFailure> makeBackupsFolder(std::string& folder) {
  return makeFolder(kBackups, folder);
}

std::string backupsFolderFor(const std::string& journals) {
  if (!journals.ends_with(kJournals)) return "";
  return journals.substr(0, journals.size() - std::strlen(kJournals)) + kBackups;
}

int listJournals(const std::string& parent, std::vector<std::string>& folders) {
  std::vector<std::string> found;
  std::error_code error;
  for (fs::directory_iterator entry(parent, error); entry != fs::directory_iterator(); entry.increment(error)) {
    const std::string path = entry->path().string();
    if (isCompleteJournal(path)) found.push_back(path);
  }
  std::sort(found.begin(), found.end());
  folders.insert(folders.end(), found.begin(), found.end());
  return error == std::errc::no_such_file_or_directory ? 0 : error.value();
}

std::vector<std::string> journalsInStateFolder() {
  return completeJournalsOf(kJournals);
}

bool isJournalThere(const std::string& folder) {
  return isCompleteJournalOf(kJournals, folder);
}

bool isBackupThere(const std::string& folder) {
  return isCompleteJournalOf(kBackups, folder);
}

std::vector<std::string> backupsInStateFolder() {
  return completeJournalsOf(kBackups);
}

void removeOldBackups() {
  const std::optional<std::string> state = existingStateFolder();
  if (!state) return;
  // Every change comes here, so that most find nothing to do.
  if (namesIn(*state + kBackups) <= kMostBackups) return;
  std::vector<std::string> folders;
  if (listJournals(*state + kBackups, folders) != 0 || folders.size() <= kBackupsLeft) return;
  folders.resize(folders.size() - kBackupsLeft);
  for (const std::string& folder : folders) removeJournal(folder);
}

bool isCompleteJournal(const std::string& folder) {
  const bool isOnItsWay = folder.ends_with(kUnfinishedJournal) || folder.ends_with(kRemovedJournal);
  if (isOnItsWay) return false;
  return access((folder + kJournalManifest).c_str(), F_OK) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

void removeLeftoversIn(const std::string& parent) {
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(parent, error)) {
    const std::string path = entry.path().string();
    if (!isJournalName(entry.path().filename().string()) || isCompleteJournal(path)) continue;
    if (const Descriptor lock = lockJournalFolder(path)) removeJournalFiles(path);
  }
}

void removeJournalFiles(const std::string& folder) {
  for (const char* const name : kJournalFiles) unlink((folder + name).c_str());
  unlink((folder + kJournalPieces).c_str());
  rmdir(folder.c_str());
}

void removeJournal(const std::string& folder) {
  const std::string removed = folder + kRemovedJournal;
  if (rename(folder.c_str(), removed.c_str()) != 0) {
    removeJournalFiles(folder);  // the manifest goes first, and without it the folder is no journal
    return;
  }
  static_cast<void>(syncJournalFolder(fs::path(folder).parent_path().string()));
  removeJournalFiles(removed);
}

Descriptor newJournalFile(const std::string& path) {
  return Descriptor(aboveStandardStreams(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)));
}

bool writeJournalBytes(int descriptor, const uint8_t* bytes, size_t count) {
  while (count > 0) {
    const ssize_t done = write(descriptor, bytes, count);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) {
      if (done == 0) errno = ENOSPC;
      return false;
    }
    bytes += done;
    count -= static_cast<size_t>(done);
  }
  return true;
}

bool syncJournalFolder(const std::string& folder) {
  const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return opened && platform().filesInPlace->sync(opened.get()) == 0;
}

Descriptor lockJournalFolder(const std::string& folder) {
  Descriptor lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (lock && flock(lock.get(), LOCK_EX | LOCK_NB) != 0) lock.reset();
  return lock;
}

ChangeFailure journalFailure(const std::string& subject, int error) {
  return {subject, SystemError{error}.reason(), kNothingWritten};
}

}  // namespace vorlix
