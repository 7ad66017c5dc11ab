// SPDX-License-Identifier: Apache-2.0
#include "BackupFiles.h"

#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/FilesInPlace.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemError.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "Layout.h"
#include "Parts.h"

namespace vorlix {
namespace {

bool isTaken(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0;
}

std::string parentOf(const std::string& folder) {
  const std::string parent = std::filesystem::path(folder).parent_path();
  return parent.empty() ? "." : parent;
}

void syncFolder(const std::string& folder) {
  const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Some file systems cannot sync folders, and say so with EINVAL.
  if (!opened || (platform().filesInPlace->sync(opened.get()) != 0 && errno != EINVAL)) {
    throw BackupError::ofErrno(folder, errno);
  }
}

bool isOfABackup(const std::string& name) {
  const std::vector<std::string> names = allPartFiles();
  return name == kImageFile || name == kMapFile || name == kManifestFile ||
         std::find(names.begin(), names.end(), name) != names.end();
}

// Whether another process writes the file. A process's own locks do not count, as it opens the file once.
bool isLocked(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return file && fcntl(file.get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace

BackupError BackupError::ofErrno(std::string subject, int error) {
  return {std::move(subject), SystemError{error}.reason()};
}

std::unique_ptr<BlockHash> newBackupHash() {
  std::string reason;
  std::unique_ptr<BlockHash> hash = platform().blockCoding->newHash(reason);
  if (!hash) throw BackupError("backup", reason);
  return hash;
}

std::unique_ptr<BlockCoder> newBackupCoder() {
  std::string reason;
  std::unique_ptr<BlockCoder> coder = platform().blockCoding->newCoder(reason);
  if (!coder) throw BackupError("backup", reason);
  return coder;
}

void refuseTakenName(const std::string& folder) {
  if (folder.empty()) throw BackupError(folder, "no folder was named");
  if (isTaken(folder)) throw BackupError(folder, "already exists; a backup is never overwritten");
}

std::string withoutFinalSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

NewFolder::NewFolder(const std::string& folder) : folder_(withoutFinalSlashes(folder)), temporary_(folder_ + ".new") {
  refuseTakenName(folder_);
  constexpr mode_t kOnlyTheUser = 0700;
  if (mkdir(temporary_.c_str(), kOnlyTheUser) == 0) {
    isThere_ = true;
    return;
  }
  if (errno != EEXIST) throw BackupError::ofErrno(temporary_, errno);
  removeLeftover();
  if (mkdir(temporary_.c_str(), kOnlyTheUser) != 0) throw BackupError::ofErrno(temporary_, errno);
  isThere_ = true;
}

NewFolder::~NewFolder() {
  if (isThere_) remove();
}

void NewFolder::removeLeftover() {
  Files& files = *platform().files;
  const auto names = files.isLink(temporary_) ? std::nullopt : files.namesIn(temporary_);
  if (!names || !std::all_of(names->begin(), names->end(), isOfABackup)) {
    throw BackupError(temporary_, "stands in the way, and no backup has left it");
  }
  if (isLocked(pathOf(kImageFile))) throw BackupError(temporary_, "another process writes this backup");
  remove();
}

void NewFolder::remove() {
  for (const std::string& name : platform().files->namesIn(temporary_).value_or(std::vector<std::string>{})) {
    if (isOfABackup(name)) unlink(pathOf(name).c_str());
  }
  rmdir(temporary_.c_str());
  isThere_ = false;
}

void NewFolder::finish() {
  syncFolder(temporary_);
  if (platform().filesInPlace->renameToFreeName(temporary_.c_str(), folder_.c_str()) != 0) {
    if (errno != EINVAL && errno != ENOTSUP && errno != ENOSYS) throw BackupError::ofErrno(folder_, errno);
    refuseTakenName(folder_);
    if (rename(temporary_.c_str(), folder_.c_str()) != 0) throw BackupError::ofErrno(folder_, errno);
  }
  isThere_ = false;
  try {
    syncFolder(parentOf(folder_));
  } catch (BackupError& error) {
    error.isBackupThere = true;
    throw;
  }
}

NewFile::NewFile(std::string path, bool lock) : path_(std::move(path)), hash_(newBackupHash()) {
  constexpr mode_t kOnlyTheUser = 0600;
  file_ = Descriptor(
      aboveStandardStreams(open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kOnlyTheUser)));
  if (!file_) throw BackupError::ofErrno(path_, errno);
  if (!lock) return;
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  fcntl(file_.get(), F_SETLK, &whole);  // a file system without locks: nobody then tells a leftover from a file at work
}

void NewFile::write(std::span<const uint8_t> bytes, uint64_t offset) {
  while (!bytes.empty()) {
    const ssize_t done = pwrite(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) throw BackupError::ofErrno(path_, done < 0 ? errno : ENOSPC);
    bytes = bytes.subspan(static_cast<size_t>(done));
    offset += static_cast<uint64_t>(done);
  }
}

void NewFile::add(std::span<const uint8_t> bytes) {
  write(bytes, size_);
  size_ += bytes.size();
  hash_->add(bytes);
}

void NewFile::add(const std::string& text) {
  add(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

void NewFile::replace(uint64_t offset, const std::string& text) {
  write({reinterpret_cast<const uint8_t*>(text.data()), text.size()}, offset);
}

void NewFile::sync() {
  if (platform().filesInPlace->sync(file_.get()) != 0) throw BackupError::ofErrno(path_, errno);
}

OpenedFile::OpenedFile(std::string path) : path_(std::move(path)) {
  file_ = Descriptor(open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  if (!file_ || fstat(file_.get(), &status) != 0) throw BackupError::ofErrno(path_, errno);
  if (!S_ISREG(status.st_mode)) throw BackupError(path_, "is no regular file");
  size_ = static_cast<uint64_t>(status.st_size);
}

void OpenedFile::read(uint64_t offset, std::span<uint8_t> bytes) const {
  while (!bytes.empty()) {
    const ssize_t done = pread(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) throw BackupError::ofErrno(path_, errno);
    if (done == 0) throw BackupError(path_, "ends too early");
    bytes = bytes.subspan(static_cast<size_t>(done));
    offset += static_cast<uint64_t>(done);
  }
}

std::string OpenedFile::hash() const {
  constexpr uint64_t kPiece = uint64_t{1} << 20;
  const std::unique_ptr<BlockHash> hash = newBackupHash();
  std::vector<uint8_t> piece;
  for (uint64_t offset = 0; offset < size_; offset += piece.size()) {
    piece.resize(static_cast<size_t>(std::min(kPiece, size_ - offset)));
    read(offset, piece);
    hash->add(piece);
  }
  return hash->finish();
}

std::vector<uint8_t> OpenedFile::content(uint64_t limit) const {
  if (size_ > limit) throw BackupError(path_, "is too large");
  std::vector<uint8_t> bytes(static_cast<size_t>(size_));
  read(0, bytes);
  return bytes;
}

}  // namespace vorlix
