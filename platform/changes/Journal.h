// SPDX-License-Identifier: Apache-2.0
//
// Journals of changes to disks: a folder each, with the bytes before and after. docs/journal.md describes the format.
#pragma once

#include <Vorlix/platform/DiskChange.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <Vorlix/platform/Descriptor.h>
#include "JournalManifest.h"

namespace vorlix {

/// The longest run in a journal; readers hold one in memory.
inline constexpr uint64_t kLongestRun = 1024 * 1024;

/// A complete journal, on the medium.
class Journal {
 public:
  const std::string& title() const { return manifest_.title; }
  const std::string& folder() const { return folder_; }
  const JournalManifest& manifest() const { return manifest_; }
  const std::vector<JournalDevice>& devices() const { return manifest_.devices; }
  const std::vector<JournalRun>& runs() const { return manifest_.runs; }

  /// Reads the bytes of a run before or after the change, and compares them with their hash.
  enum class Image { before, after };
  std::optional<ChangeFailure> read(const JournalRun& run, Image image, std::vector<uint8_t>& bytes) const;

  /// Does the same with the content that a file had before the change.
  std::optional<ChangeFailure> read(const JournalFile& file, std::vector<uint8_t>& bytes) const;

  /// Removes the journal: nothing of the change is on the medium.
  void remove();

  /// The change is on the medium: the journal becomes a backup in the state folder if it is to, or is removed.
  std::optional<ChangeFailure> finish();

  /// Copies the journal to another folder, under the same name. @param copy  receives the path of the copy.
  std::optional<ChangeFailure> copyTo(const std::string& folder, std::string& copy) const;

  /// Reads a complete journal. Null if there is none or it is damaged, with the reason in `failure`.
  static std::unique_ptr<Journal> open(const std::string& folder, std::optional<ChangeFailure>& failure);

  /// Keeps other processes from using it. False if one has it, or has just removed it. The journal of a writer is
  /// locked.
  bool lock();

 private:
  friend class JournalWriter;
  Journal() = default;

  std::string folder_;
  JournalManifest manifest_;
  Descriptor lock_;
  Descriptor before_;
  Descriptor after_;
};

/// Writes a journal run by run, so that a change of any size needs no more memory than one run. A writer that is
/// destroyed without commit() leaves nothing.
class JournalWriter {
 public:
  /// Begins the journal of a change to disks.
  /// @param backup  where it goes after the change
  static std::optional<ChangeFailure> begin(const std::string& title, const ChangeBackup& backup,
                                            std::unique_ptr<JournalWriter>& writer);

  /// Begins a journal that is a backup from the start, for changes that need none to be whole.
  static std::optional<ChangeFailure> beginBackup(const std::string& title, const ChangeBackup& backup,
                                                  std::unique_ptr<JournalWriter>& writer);
  ~JournalWriter();
  JournalWriter(const JournalWriter&) = delete;
  JournalWriter& operator=(const JournalWriter&) = delete;

  /// @return the device's index.
  size_t addDevice(const std::string& name, const DeviceIdentity& identity);

  /// Adds a run, in the order of writing. Runs longer than kLongestRun are divided.
  std::optional<ChangeFailure> add(size_t device, uint64_t offset, std::span<const uint8_t> before,
                                   std::span<const uint8_t> after, const std::string& reason);

  /// Adds the devices of a change with their runs.
  /// @param withUnchanged  whether runs are added that are the same before and after
  std::optional<ChangeFailure> add(const DiskChange& change, bool withUnchanged);

  /// Adds a file of a mounted volume.
  std::optional<ChangeFailure> add(const FileChange& file);

  /// Says where the content of a long change comes from.
  void setContent(JournalContent content) { journal_->manifest_.content = std::move(content); }

  /// Syncs the journal. From here on the change is found if the process ends.
  std::optional<ChangeFailure> commit(std::unique_ptr<Journal>& journal);

 private:
  JournalWriter() = default;
  static std::optional<ChangeFailure> beginIn(const std::string& parent, const std::string& title,
                                              std::unique_ptr<JournalWriter>& writer);
  std::unique_ptr<Journal> journal_;
  uint64_t place_ = 0;
};

/// Applies a committed journal through `handles`, one for each of its devices, as applyChange() describes. The bytes on
/// the devices must be those that the journal has as the old ones.
/// @param backup  what the journal was begun with
/// @param kept    receives the folder of the backup; empty if there is none
std::optional<ChangeFailure> applyJournal(Journal& journal, const std::vector<DeviceHandle*>& handles,
                                          const ChangeBackup& backup, std::string& kept);

}  // namespace vorlix
