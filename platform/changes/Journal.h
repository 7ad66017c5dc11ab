// SPDX-License-Identifier: Apache-2.0
//
// Journals of changes to disks: a folder each, with the bytes before and after. docs/journal.md describes the format.
#pragma once

#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/DiskChange.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <Vorlix/platform/Descriptor.h>

namespace vorlix {

/// A run of bytes in a journal.
struct JournalRun {
  size_t device = 0;    ///< index into the journal's devices
  uint64_t offset = 0;  ///< bytes from the start of that device
  uint64_t length = 0;  ///< bytes, at most kLongestRun
  uint64_t place = 0;   ///< where its bytes stand in both of the journal's files
  std::string reason;
  std::string before;  ///< SHA-256, hexadecimal
  std::string after;   ///< likewise
};

struct JournalDevice {
  std::string name;
  DeviceIdentity identity;
};

/// The longest run in a journal; readers hold one in memory.
inline constexpr uint64_t kLongestRun = 1024 * 1024;

/// A complete journal, on the medium.
class Journal {
 public:
  const std::string& title() const { return title_; }
  const std::string& folder() const { return folder_; }
  const std::vector<JournalDevice>& devices() const { return devices_; }
  const std::vector<JournalRun>& runs() const { return runs_; }

  /// The bytes of a run before or after the change, compared with their hash.
  enum class Image { before, after };
  std::optional<ChangeFailure> read(const JournalRun& run, Image image, std::vector<uint8_t>& bytes) const;

  /// Removes the journal: the change is on the medium, or nothing of it is.
  void remove();

  /// Reads a complete journal. Null where it is none, or damaged, with the reason in `failure`.
  static std::unique_ptr<Journal> open(const std::string& folder, std::optional<ChangeFailure>& failure);

  /// Keeps other processes from it. False where one has it, or has just removed it. The journal of a writer is locked.
  bool lock();

 private:
  friend class JournalWriter;
  Journal() = default;

  std::string title_;
  std::string folder_;
  std::vector<JournalDevice> devices_;
  std::vector<JournalRun> runs_;
  Descriptor lock_;
  Descriptor before_;
  Descriptor after_;
};

/// Writes a journal run by run, so that a change of any size needs no more memory than one run. A writer that goes
/// without commit() leaves nothing.
class JournalWriter {
 public:
  static std::optional<ChangeFailure> begin(const std::string& title, std::unique_ptr<JournalWriter>& writer);
  ~JournalWriter();
  JournalWriter(const JournalWriter&) = delete;
  JournalWriter& operator=(const JournalWriter&) = delete;

  /// @return the device's index.
  size_t addDevice(const std::string& name, const DeviceIdentity& identity);

  /// Adds a run, in the order of writing. Longer runs than kLongestRun are cut.
  std::optional<ChangeFailure> add(size_t device, uint64_t offset, std::span<const uint8_t> before,
                                   std::span<const uint8_t> after, const std::string& reason);

  /// Brings the journal to the medium. From here on the change is found if the process ends.
  std::optional<ChangeFailure> commit(std::unique_ptr<Journal>& journal);

 private:
  JournalWriter() = default;
  std::unique_ptr<Journal> journal_;
  uint64_t place_ = 0;
};

/// Applies a committed journal through `handles`, one for each of its devices, and removes it; Change.h says how.
/// What stands on the devices must be what stands in the journal.
std::optional<ChangeFailure> applyJournal(Journal& journal, const std::vector<DeviceHandle*>& handles);

/// The folders of this user's complete journals, the oldest first.
std::vector<std::string> journalFolders();

}  // namespace vorlix
