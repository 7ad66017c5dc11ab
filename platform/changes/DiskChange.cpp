// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/DiskChange.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemError.h>
#include "Journal.h"
#include "JournalFolder.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

namespace vorlix {
namespace {

using Bytes = std::vector<uint8_t>;
using Image = Journal::Image;

constexpr size_t kSector = 512;  // a medium writes these whole or not at all

std::string reasonOf(ssize_t done) {
  return done < 0 ? SystemError{errno}.reason() : "the device ends too early";
}

// A run of bytes on the medium. False with `reason` set where it cannot be read whole.
bool readRun(DeviceHandle& handle, const JournalRun& run, Bytes& bytes, std::string& reason) {
  bytes.resize(static_cast<size_t>(run.length));
  const ssize_t done = handle.readMediumAt(bytes.data(), bytes.size(), run.offset);
  if (done == static_cast<ssize_t>(bytes.size())) return true;
  reason = reasonOf(done);
  return false;
}

// Carries a journal out, forwards or backwards, through the devices it is for.
class Application {
 public:
  Application(Journal& journal, std::vector<DeviceHandle*> handles) : journal_(journal), handles_(std::move(handles)) {}

  std::optional<ChangeFailure> run() {
    if (auto failure = checkBefore()) {
      journal_.remove();
      return failure;
    }
    return finish();
  }

  // Makes the change, whatever part of it stands there already. A journal that `stays` may be another disk's, too.
  std::optional<ChangeFailure> finish(bool stays = false) {
    auto failure = put(Image::after);
    if (!failure) return stays ? std::nullopt : journal_.finish();
    // A write may end anywhere, so that each byte is looked at by itself.
    Standing standing = Standing::mixed;
    const bool isForeign = !look(standing, 1) && standing == Standing::foreign;
    if (!isForeign && !put(Image::before)) {
      if (!stays) journal_.remove();
      failure->state = "what was written was put back, so that nothing is changed";
      return failure;
    }
    failure->state = whatStands() + "; ";
    failure->state += isForeign ? "somebody else wrote there meanwhile, so nothing was put back; the change is kept in "
                                : "the next command on this disk finishes the change, which is kept in ";
    failure->state += journal_.folder();
    return failure;
  }

  std::optional<ChangeFailure> putBack() {
    auto failure = put(Image::before);
    if (failure) {
      failure->state = whatStands() + "; the change is kept in " + journal_.folder();
    } else {
      journal_.remove();
    }
    return failure;
  }

  // What a process that was cut off left on the medium, where sectors, or runs of `unit` bytes, are written whole.
  enum class Standing { before, mixed, foreign };
  std::optional<ChangeFailure> look(Standing& standing, size_t unit = kSector) const {
    standing = Standing::before;
    for (const JournalRun& run : journal_.runs()) {
      Bytes before;
      Bytes after;
      Bytes now;
      if (auto failure = journal_.read(run, Image::before, before)) return failure;
      if (auto failure = journal_.read(run, Image::after, after)) return failure;
      std::string reason;
      if (!readRun(handleOf(run), run, now, reason)) return failureAt(run, reason);
      size_t length = 0;
      for (size_t at = 0; at < now.size(); at += length) {
        // As far as the sector goes that it lies in, which a run may begin or end within.
        length = std::min(unit - static_cast<size_t>((run.offset + at) % unit), now.size() - at);
        if (std::memcmp(now.data() + at, before.data() + at, length) == 0) continue;
        if (std::memcmp(now.data() + at, after.data() + at, length) != 0) {
          standing = Standing::foreign;
          return std::nullopt;
        }
        standing = Standing::mixed;
      }
    }
    return std::nullopt;
  }

 private:
  DeviceHandle& handleOf(const JournalRun& run) const { return *handles_[run.device]; }

  ChangeFailure failureAt(const JournalRun& run, const std::string& reason) const {
    return {journal_.devices()[run.device].name, run.reason + ": " + reason, kNothingWritten};
  }

  std::optional<ChangeFailure> checkBefore() const {
    for (const JournalRun& run : journal_.runs()) {
      Bytes before;
      Bytes now;
      if (auto failure = journal_.read(run, Image::before, before)) return failure;
      std::string reason;
      if (!readRun(handleOf(run), run, now, reason)) return failureAt(run, reason);
      if (now != before) return failureAt(run, "somebody else changed it since it was looked at");
    }
    return std::nullopt;
  }

  // Writes one image of all runs, brings it to the medium and reads it back from there.
  std::optional<ChangeFailure> put(Image image) {
    std::optional<ChangeFailure> failure;
    for (const JournalRun& run : journal_.runs()) {
      // A medium that refused a run refuses to have it put back as well, and need not: it is as it was.
      if (image == Image::before && isOnMedium(run, image)) continue;
      if ((failure = putRun(run, image))) break;
    }
    // Also after a failure: what was written so far may as well be there.
    for (size_t i = 0; i < handles_.size(); ++i) {
      if (handles_[i]->sync() == 0 || failure) continue;
      failure = ChangeFailure{journal_.devices()[i].name,
                              "what was written is not on the medium: " + SystemError{errno}.reason(), ""};
    }
    for (auto run = journal_.runs().begin(); !failure && run != journal_.runs().end(); ++run) {
      Bytes wanted;
      Bytes now;
      std::string reason;
      failure = journal_.read(*run, image, wanted);
      if (failure) break;
      if (!readRun(handleOf(*run), *run, now, reason)) {
        failure = failureAt(*run, "written, but cannot be read back: " + reason);
      } else if (now != wanted) {
        failure = failureAt(*run, "reads back differently from what was written");
      }
    }
    return failure;
  }

  bool isOnMedium(const JournalRun& run, Image image) const {
    Bytes wanted;
    Bytes now;
    std::string reason;
    return !journal_.read(run, image, wanted) && readRun(handleOf(run), run, now, reason) && now == wanted;
  }

  std::optional<ChangeFailure> putRun(const JournalRun& run, Image image) {
    Bytes bytes;
    if (auto failure = journal_.read(run, image, bytes)) return failure;
    const ssize_t done = handleOf(run).writeAt(bytes.data(), bytes.size(), run.offset);
    if (done == static_cast<ssize_t>(bytes.size())) return std::nullopt;
    return failureAt(run, done < 0 ? SystemError{errno}.reason() : "only a part of it could be written");
  }

  // Of each run with a reason of its own whether it is on the medium.
  std::string whatStands() const {
    std::string text;
    const JournalRun* previous = nullptr;
    for (const JournalRun& run : journal_.runs()) {
      const bool isSame = previous != nullptr && previous->reason == run.reason && previous->device == run.device;
      previous = &run;
      if (isSame) continue;
      text += (text.empty() ? "" : ", ") + run.reason + " " + standingOf(run);
    }
    return text;
  }

  // All runs that share the reason of this one.
  const char* standingOf(const JournalRun& first) const {
    bool anyBefore = false;
    bool anyAfter = false;
    for (const JournalRun& run : journal_.runs()) {
      if (run.reason != first.reason || run.device != first.device) continue;
      Bytes before;
      Bytes after;
      Bytes now;
      std::string reason;
      if (!readRun(handleOf(run), run, now, reason)) return "cannot be read";
      if (journal_.read(run, Image::before, before) || journal_.read(run, Image::after, after)) return "is not known";
      const bool isBefore = now == before;
      const bool isAfter = now == after;
      if (!isBefore && !isAfter) return "is written in part";
      anyBefore |= isBefore && !isAfter;
      anyAfter |= isAfter && !isBefore;
    }
    if (anyBefore && anyAfter) return "is written in part";
    return anyAfter ? "is written" : "is not written";
  }

  Journal& journal_;
  std::vector<DeviceHandle*> handles_;
};

// A slice seen through the handle of its disk.
class WindowHandle final : public DeviceHandle {
 public:
  WindowHandle(DeviceHandle& disk, uint64_t offset) : disk_(disk), offset_(offset) {}

  ssize_t readAt(void* buffer, size_t count, uint64_t offset) override {
    return disk_.readAt(buffer, count, offset_ + offset);
  }
  ssize_t readMediumAt(void* buffer, size_t count, uint64_t offset) override {
    return disk_.readMediumAt(buffer, count, offset_ + offset);
  }
  ssize_t writeAt(const void* buffer, size_t count, uint64_t offset) override {
    return disk_.writeAt(buffer, count, offset_ + offset);
  }
  int sync() override { return disk_.sync(); }
  std::optional<DeviceIdentity> identity() override { return disk_.identity(); }
  std::optional<uint64_t> size() override { return std::nullopt; }
  int close() override { return 0; }

 private:
  DeviceHandle& disk_;
  uint64_t offset_;
};

bool isFor(const Journal& journal, const DeviceIdentity& identity) {
  return std::any_of(journal.devices().begin(), journal.devices().end(),
                     [&](const JournalDevice& device) { return device.identity.disk == identity.disk; });
}

std::unique_ptr<DeviceHandle> openForWriting(const std::string& name) {
  DeviceFile& files = *platform().deviceFile;
  auto handle = files.open(name, DeviceAccess::readWrite, DeviceLock::exclusive);
  return handle ? std::move(handle) : files.open(name, DeviceAccess::readWrite, DeviceLock::shared);
}

// The device of a journal: by its name, if that still is the same one, else through the disk that is open already.
std::unique_ptr<DeviceHandle> openJournalDevice(const JournalDevice& wanted, DeviceHandle& disk,
                                                const DeviceIdentity& diskIdentity) {
  auto handle = openForWriting(wanted.name);
  if (handle && handle->identity() == wanted.identity) return handle;
  const bool isOnDisk = wanted.identity.disk == diskIdentity.disk && wanted.identity.offset && diskIdentity.offset;
  if (!isOnDisk || *wanted.identity.offset < *diskIdentity.offset) return nullptr;
  return std::make_unique<WindowHandle>(disk, *wanted.identity.offset - *diskIdentity.offset);
}

using Handles = std::vector<std::unique_ptr<DeviceHandle>>;

std::vector<DeviceHandle*> pointersTo(const Handles& handles) {
  std::vector<DeviceHandle*> pointers;
  for (const auto& handle : handles) pointers.push_back(handle.get());
  return pointers;
}

// The devices of a journal for another disk in the same places of this one. Empty where they have none.
Handles placesOn(DeviceHandle& disk, const DeviceIdentity& identity, const Journal& journal) {
  Handles places;
  for (const JournalDevice& device : journal.devices()) {
    const bool isOneDisk = device.identity.disk == journal.devices().front().identity.disk;
    if (!isOneDisk || !device.identity.offset || !identity.offset || *device.identity.offset < *identity.offset) {
      return {};
    }
    places.push_back(std::make_unique<WindowHandle>(disk, *device.identity.offset - *identity.offset));
  }
  return places;
}

// Whether the disk holds a part of a change that was begun on it under another identity: numbers of disks change with
// each attachment, and an image may have been copied. Bytes from before and after the change in all its places tell.
bool holdsPartOf(Journal& journal, DeviceHandle& disk, const DeviceIdentity& identity) {
  const Handles places = placesOn(disk, identity, journal);
  Application::Standing standing = Application::Standing::before;
  return !places.empty() && !Application(journal, pointersTo(places)).look(standing) &&
         standing == Application::Standing::mixed;
}

// Whether the disk that a journal is for is still attached under the name that it had.
bool isDiskThere(const Journal& journal) {
  const JournalDevice& device = journal.devices().front();
  const auto handle = platform().deviceFile->open(device.name, DeviceAccess::readOnly, DeviceLock::none);
  return handle && handle->identity() == device.identity;
}

// Whether a journal is of a change to this disk. Restores of one image to disks that are alike may run at one time: on
// each of them, the bytes are those of all the journals. So a restore whose own disk is there concerns no other one.
bool concerns(Journal& journal, DeviceHandle& disk, const DeviceIdentity& identity) {
  if (isFor(journal, identity)) return true;
  if (journal.manifest().content && isDiskThere(journal)) return false;
  return holdsPartOf(journal, disk, identity);
}

bool isStillThere(const std::string& folder) {
  const std::vector<std::string> folders = journalsInStateFolder();
  return std::find(folders.begin(), folders.end(), folder) != folders.end();
}

std::optional<ChangeFailure> settle(Journal& journal, DeviceHandle& disk, const DeviceIdentity& identity,
                                    std::vector<std::string>& finished) {
  const std::string unsettled = "an earlier change (" + journal.title() + ") was cut off, ";
  if (journal.manifest().content) {
    const std::string name = std::filesystem::path(journal.folder()).filename().string();
    return ChangeFailure{journal.devices().front().name,
                         unsettled + "and only `vorlix restore --resume " + name + "` finishes it; `vorlix undo " +
                             name + "` gives it up",
                         kNothingWritten};
  }
  const bool isOwn = isFor(journal, identity);
  Handles opened;
  if (!isOwn) opened = placesOn(disk, identity, journal);
  for (size_t i = opened.size(); i < journal.devices().size(); ++i) {
    const JournalDevice& device = journal.devices()[i];
    opened.push_back(openJournalDevice(device, disk, identity));
    if (opened.back()) continue;
    return ChangeFailure{device.name, unsettled + "and this device of it is not there to finish it", kNothingWritten};
  }
  Application application(journal, pointersTo(opened));
  Application::Standing standing = Application::Standing::before;
  if (auto failure = application.look(standing)) {
    failure->reason = unsettled + "and cannot be finished from " + journal.folder() + ": " + failure->reason;
    return failure;
  }
  if (standing == Application::Standing::foreign) {
    return ChangeFailure{journal.devices().front().name,
                         unsettled + "and somebody else wrote there meanwhile; remove " + journal.folder() +
                             " once the disk is as you want it",
                         kNothingWritten};
  }
  if (standing == Application::Standing::before) return application.putBack();
  // A copy of the disk is as half-written as the disk itself, which still needs the journal.
  if (auto failure = application.finish(!isOwn && isDiskThere(journal))) return failure;
  finished.push_back(journal.title());
  return std::nullopt;
}

}  // namespace

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
  auto failure = Application(journal, handles).run();
  if (failure && !kept.empty() && !isStillThere(folder)) removeJournal(std::exchange(kept, ""));
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
  std::vector<DeviceHandle*> handles;
  for (const DeviceChange& device : change.devices) {
    const auto identity = device.handle->identity();
    if (!identity) return ChangeFailure{device.device, SystemError{errno}.reason(), kNothingWritten};
    const size_t index = writer->addDevice(device.device, *identity);
    handles.push_back(device.handle.get());
    for (const ByteChange& run : device.bytes) {
      if (run.before == run.after) continue;
      if (auto failure = writer->add(index, run.offset, run.before, run.after, run.reason)) return failure;
    }
  }
  std::unique_ptr<Journal> journal;
  if (auto failure = writer->commit(journal)) return failure;
  return applyJournal(*journal, handles, backup, kept);
}

std::vector<InterruptedChange> interruptedChanges(DeviceHandle& device) {
  std::vector<InterruptedChange> found;
  const auto identity = device.identity();
  if (!identity) return found;
  for (const std::string& folder : journalsInStateFolder()) {
    if (isOpenLongChange(folder)) continue;
    std::optional<ChangeFailure> failure;
    const auto journal = Journal::open(folder, failure);
    if (!journal && isStillThere(folder)) found.push_back({"of a journal that cannot be read", folder, false});
    if (!journal || !concerns(*journal, device, *identity)) continue;
    found.push_back({journal->title(), folder, journal->manifest().content.has_value()});
  }
  return found;
}

std::optional<ChangeFailure> settleInterruptedChanges(const std::string& name, DeviceHandle& device,
                                                      std::vector<std::string>& finished) {
  const auto identity = device.identity();
  if (!identity) return ChangeFailure{name, SystemError{errno}.reason(), kNothingWritten};
  for (const std::string& folder : journalsInStateFolder()) {
    if (isOpenLongChange(folder)) continue;
    std::optional<ChangeFailure> damaged;
    const auto journal = Journal::open(folder, damaged);
    if (!journal && isStillThere(folder)) {
      damaged->reason += ", and which disk it is for cannot be told; move it away once your disks are as you want them";
      return damaged;
    }
    if (!journal || !concerns(*journal, device, *identity)) continue;
    if (!journal->lock()) {
      return ChangeFailure{name, "another process is changing this disk (" + journal->title() + ")", kNothingWritten};
    }
    if (auto failure = settle(*journal, device, *identity, finished)) return failure;
  }
  return std::nullopt;
}

}  // namespace vorlix
