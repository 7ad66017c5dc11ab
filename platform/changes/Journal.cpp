// SPDX-License-Identifier: Apache-2.0
#include "Journal.h"

#include <Vorlix/foundation/Sha256.h>
#include <Vorlix/platform/FilesInPlace.h>
#include <Vorlix/platform/Platform.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include "StateFolder.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

namespace vorlix {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr const char* kFormat = "vorlix journal";
constexpr int kVersion = 1;
constexpr const char* kManifest = "/manifest.json";
constexpr const char* kBefore = "/before.bin";
constexpr const char* kAfter = "/after.bin";
constexpr const char* kUnfinished = ".new";  // ends the name of a journal that is being written
constexpr const char* kRemoved = ".done";    // ends the name of one that is being removed
constexpr size_t kLargestManifest = size_t{256} * 1024 * 1024;

ChangeFailure failureOf(const std::string& subject, int error) {
  return {subject, std::strerror(error), kNothingWritten};
}

std::string journalsFolderOf(const std::string& stateFolder) {
  return stateFolder + "/journals";
}

// The time in UTC. The C library would read the machine's time zone for that.
std::string nameOfNewJournal() {
  namespace chrono = std::chrono;
  const auto now = chrono::time_point_cast<chrono::nanoseconds>(chrono::system_clock::now());
  const auto day = chrono::floor<chrono::days>(now);
  const chrono::year_month_day date(day);
  const chrono::hh_mm_ss time(now - day);
  char text[128];
  std::snprintf(text, sizeof text, "%04d%02u%02uT%02d%02d%02d.%09d-%d", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()), getpid());
  return text;
}

bool writeAll(int descriptor, const uint8_t* bytes, size_t count) {
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

Descriptor newFile(const std::string& path) {
  return Descriptor(aboveStandardStreams(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)));
}

bool syncFolder(const std::string& folder) {
  const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return opened && platform().filesInPlace->sync(opened.get()) == 0;
}

Descriptor lockFolder(const std::string& folder) {
  Descriptor lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (lock && flock(lock.get(), LOCK_EX | LOCK_NB) != 0) lock.reset();
  return lock;
}

void removeFiles(const std::string& folder) {
  for (const char* const name : {kManifest, kBefore, kAfter}) unlink((folder + name).c_str());
  rmdir(folder.c_str());
}

bool isComplete(const std::string& folder) {
  const bool isOnItsWay = folder.ends_with(kUnfinished) || folder.ends_with(kRemoved);
  return !isOnItsWay && access((folder + kManifest).c_str(), F_OK) == 0;
}

// What processes that were ended left over: journals that never were complete, and such as were no longer needed.
void removeLeftovers(const std::string& journals) {
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(journals, error)) {
    const std::string path = entry.path().string();
    if (isComplete(path)) continue;
    if (const Descriptor lock = lockFolder(path)) removeFiles(path);
  }
}

std::optional<ChangeFailure> makeJournalsFolder(std::string& journals) {
  std::string reason;
  const std::optional<std::string> state = makeStateFolder(reason);
  if (!state) return ChangeFailure{"no folder for the journal", reason, kNothingWritten};
  journals = journalsFolderOf(*state);
  if (mkdir(journals.c_str(), 0700) != 0 && errno != EEXIST) return failureOf(journals, errno);
  return std::nullopt;
}

Json manifestOf(const Journal& journal) {
  Json devices = Json::array();
  for (const JournalDevice& device : journal.devices()) {
    const auto& offset = device.identity.offset;
    devices.push_back(
        {{"name", device.name}, {"disk", device.identity.disk}, {"offset", offset ? Json(*offset) : Json()}});
  }
  Json runs = Json::array();
  for (const JournalRun& run : journal.runs()) {
    runs.push_back({{"device", run.device},
                    {"offset", run.offset},
                    {"length", run.length},
                    {"place", run.place},
                    {"reason", run.reason},
                    {"before", run.before},
                    {"after", run.after}});
  }
  return {{"format", kFormat},
          {"version", kVersion},
          {"title", journal.title()},
          {"devices", std::move(devices)},
          {"runs", std::move(runs)}};
}

bool isHash(const std::string& text) {
  return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

bool readWhole(const std::string& path, std::string& text) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
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

}  // namespace

std::optional<ChangeFailure> Journal::read(const JournalRun& run, Image image, std::vector<uint8_t>& bytes) const {
  const int file = image == Image::before ? before_.get() : after_.get();
  bytes.resize(static_cast<size_t>(run.length));
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t got = pread(file, bytes.data() + done, bytes.size() - done, static_cast<off_t>(run.place + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return failureOf(folder_, errno);
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  const std::string& hash = image == Image::before ? run.before : run.after;
  if (done == bytes.size() && sha256(bytes) == hash) return std::nullopt;
  return ChangeFailure{folder_, "the journal is damaged", kNothingWritten};
}

void Journal::remove() {
  const std::string removed = folder_ + kRemoved;
  if (rename(folder_.c_str(), removed.c_str()) != 0) {
    removeFiles(folder_);  // without its manifest, which goes first, it is no journal any more
    return;
  }
  static_cast<void>(syncFolder(fs::path(folder_).parent_path().string()));
  removeFiles(removed);
}

bool Journal::lock() {
  lock_ = lockFolder(folder_);
  // Whoever had it may have finished and removed it since it was read.
  return lock_ && isComplete(folder_);
}

std::unique_ptr<Journal> Journal::open(const std::string& folder, std::optional<ChangeFailure>& failure) {
  failure.reset();
  std::unique_ptr<Journal> journal(new Journal);
  journal->folder_ = folder;
  const auto damaged = [&] {
    failure = ChangeFailure{folder, "the journal is damaged", kNothingWritten};
    return nullptr;
  };
  std::string text;
  if (!readWhole(folder + kManifest, text)) return damaged();
  const Json manifest = Json::parse(text, nullptr, false);
  try {
    if (manifest.at("format") != kFormat || manifest.at("version") != kVersion) return damaged();
    journal->title_ = manifest.at("title").get<std::string>();
    for (const Json& device : manifest.at("devices")) {
      JournalDevice& added = journal->devices_.emplace_back();
      added.name = device.at("name").get<std::string>();
      added.identity.disk = device.at("disk").get<std::string>();
      if (!device.at("offset").is_null()) added.identity.offset = device.at("offset").get<uint64_t>();
    }
    for (const Json& run : manifest.at("runs")) {
      JournalRun& added = journal->runs_.emplace_back();
      added.device = run.at("device").get<size_t>();
      added.offset = run.at("offset").get<uint64_t>();
      added.length = run.at("length").get<uint64_t>();
      added.place = run.at("place").get<uint64_t>();
      added.reason = run.at("reason").get<std::string>();
      added.before = run.at("before").get<std::string>();
      added.after = run.at("after").get<std::string>();
      const bool fits = added.device < journal->devices_.size() && added.length <= kLongestRun;
      if (!fits || !isHash(added.before) || !isHash(added.after)) return damaged();
    }
  } catch (const nlohmann::json::exception&) {
    return damaged();
  }
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  journal->before_ = Descriptor(::open((folder + kBefore).c_str(), kFlags));
  journal->after_ = Descriptor(::open((folder + kAfter).c_str(), kFlags));
  if (!journal->before_ || !journal->after_) return damaged();
  return journal;
}

std::optional<ChangeFailure> JournalWriter::begin(const std::string& title, std::unique_ptr<JournalWriter>& writer) {
  std::string journals;
  if (auto failure = makeJournalsFolder(journals)) return failure;
  // A new folder has a moment without a lock of its own, in which it would pass for a leftover.
  const Descriptor all(::open(journals.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!all || flock(all.get(), LOCK_EX) != 0) return failureOf(journals, errno);
  removeLeftovers(journals);
  std::unique_ptr<Journal> journal(new Journal);
  journal->title_ = title;
  const std::string folder = journals + "/" + nameOfNewJournal() + kUnfinished;
  if (mkdir(folder.c_str(), 0700) != 0) return failureOf(folder, errno);
  journal->folder_ = folder;
  writer.reset(new JournalWriter);
  writer->journal_ = std::move(journal);
  Journal& begun = *writer->journal_;
  begun.lock_ = lockFolder(folder);
  if (begun.lock_) begun.before_ = newFile(folder + kBefore);
  if (begun.before_) begun.after_ = newFile(folder + kAfter);
  if (begun.after_) return std::nullopt;
  const int reason = errno;
  writer.reset();
  return failureOf(folder, reason);
}

JournalWriter::~JournalWriter() {
  if (journal_) removeFiles(journal_->folder_);
}

size_t JournalWriter::addDevice(const std::string& name, const DeviceIdentity& identity) {
  journal_->devices_.push_back({name, identity});
  return journal_->devices_.size() - 1;
}

std::optional<ChangeFailure> JournalWriter::add(size_t device, uint64_t offset, std::span<const uint8_t> before,
                                                std::span<const uint8_t> after, const std::string& reason) {
  for (size_t at = 0; at < before.size(); at += kLongestRun) {
    const size_t length = std::min<size_t>(kLongestRun, before.size() - at);
    const auto from = before.subspan(at, length);
    const auto to = after.subspan(at, length);
    const bool isWritten =
        writeAll(journal_->before_.get(), from.data(), length) && writeAll(journal_->after_.get(), to.data(), length);
    if (!isWritten) return failureOf(journal_->folder_, errno);
    journal_->runs_.push_back({device, offset + at, length, place_, reason, sha256(from), sha256(to)});
    place_ += length;
  }
  return std::nullopt;
}

std::optional<ChangeFailure> JournalWriter::commit(std::unique_ptr<Journal>& journal) {
  const std::string folder = journal_->folder_;
  const std::string text = manifestOf(*journal_).dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  if (text.size() > kLargestManifest) return ChangeFailure{folder, "the change has too many parts", kNothingWritten};
  const Descriptor manifest = newFile(folder + kManifest);
  const bool isOnMedium = manifest &&
                          writeAll(manifest.get(), reinterpret_cast<const uint8_t*>(text.data()), text.size()) &&
                          platform().filesInPlace->sync(manifest.get()) == 0 &&
                          platform().filesInPlace->sync(journal_->before_.get()) == 0 &&
                          platform().filesInPlace->sync(journal_->after_.get()) == 0 && syncFolder(folder);
  if (!isOnMedium) return failureOf(folder, errno);
  const std::string complete = folder.substr(0, folder.size() - std::strlen(kUnfinished));
  if (rename(folder.c_str(), complete.c_str()) != 0) return failureOf(folder, errno);
  journal_->folder_ = complete;
  if (!syncFolder(fs::path(complete).parent_path().string())) return failureOf(folder, errno);
  journal = std::move(journal_);
  return std::nullopt;
}

std::vector<std::string> journalFolders() {
  std::vector<std::string> folders;
  const std::optional<std::string> state = existingStateFolder();
  if (!state) return folders;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(journalsFolderOf(*state), error)) {
    const std::string path = entry.path().string();
    if (isComplete(path)) folders.push_back(path);
  }
  std::sort(folders.begin(), folders.end());
  return folders;
}

}  // namespace vorlix
