// SPDX-License-Identifier: Apache-2.0
//
// Files of a backup as they are written, and the folder that they are written in.
#pragma once

#include <Vorlix/platform/BlockCoding.h>
#include <Vorlix/platform/Descriptor.h>

#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace vorlix {

/// Ends a backup, or the examination of one. Caught by the public functions.
class BackupError : public std::runtime_error {
 public:
  BackupError(std::string about, const std::string& reason, bool cancelled = false)
      : std::runtime_error(reason), subject(std::move(about)), isCancelled(cancelled) {}

  static BackupError ofErrno(std::string subject, int error);

  std::string subject;
  bool isCancelled;
  bool isBackupThere = false;  ///< under its final name
};

std::unique_ptr<BlockHash> newBackupHash();
std::unique_ptr<BlockCoder> newBackupCoder();

/// The folder under its temporary name. Unless finish() was called it is gone with the object.
class NewFolder {
 public:
  /// Refuses a final name that is taken. Removes what a killed run has left under the temporary one, unless a process
  /// still writes there or it holds files that no backup has.
  explicit NewFolder(const std::string& folder);
  ~NewFolder();
  NewFolder(const NewFolder&) = delete;
  NewFolder& operator=(const NewFolder&) = delete;

  std::string pathOf(const std::string& file) const { return temporary_ + "/" + file; }

  /// Gives the folder, whose files are synced, its final name.
  void finish();

 private:
  void removeLeftover();
  void remove();

  std::string folder_;
  std::string temporary_;
  bool isThere_ = false;
};

/// Refuses a name that is taken.
void refuseTakenName(const std::string& folder);

/// A path without slashes at its end.
std::string withoutFinalSlashes(std::string path);

/// A new file that is written from its start to its end, and its running hash.
class NewFile {
 public:
  NewFile(std::string path, bool lock = false);

  /// Writes at the end.
  void add(std::span<const uint8_t> bytes);
  void add(const std::string& text);

  /// Replaces bytes that were written before; the hash does not learn of it.
  void replace(uint64_t offset, const std::string& text);

  void sync();
  uint64_t size() const { return size_; }
  std::string finishHash() { return hash_->finish(); }

 private:
  void write(std::span<const uint8_t> bytes, uint64_t offset);

  std::string path_;
  Descriptor file_;
  uint64_t size_ = 0;
  std::unique_ptr<BlockHash> hash_;
};

/// A file of a finished backup, for reading.
class OpenedFile {
 public:
  /// Only a regular file, and no link.
  explicit OpenedFile(std::string path);

  uint64_t size() const { return size_; }
  /// Reads bytes whole. Throws where the file ends before.
  void read(uint64_t offset, std::span<uint8_t> bytes) const;
  std::vector<uint8_t> content(uint64_t limit) const;
  /// SHA-256 of the whole file.
  std::string hash() const;

 private:
  std::string path_;
  Descriptor file_;
  uint64_t size_ = 0;
};

}  // namespace vorlix
