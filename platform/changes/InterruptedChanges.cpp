// SPDX-License-Identifier: Apache-2.0
//
// Finds the changes that were cut off on a disk, and finishes them or takes them back.
#include <Vorlix/platform/DiskChange.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemError.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "Journal.h"
#include "JournalApplication.h"
#include "JournalFolder.h"

namespace vorlix {
namespace {

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
  JournalApplication::Standing standing = JournalApplication::Standing::before;
  return !places.empty() && !JournalApplication(journal, pointersTo(places)).look(standing) &&
         standing == JournalApplication::Standing::mixed;
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
  JournalApplication application(journal, pointersTo(opened));
  JournalApplication::Standing standing = JournalApplication::Standing::before;
  if (auto failure = application.look(standing)) {
    failure->reason = unsettled + "and cannot be finished from " + journal.folder() + ": " + failure->reason;
    return failure;
  }
  if (standing == JournalApplication::Standing::foreign) {
    return ChangeFailure{journal.devices().front().name,
                         unsettled + "and somebody else wrote there meanwhile; remove " + journal.folder() +
                             " once the disk is as you want it",
                         kNothingWritten};
  }
  if (standing == JournalApplication::Standing::before) return application.putBack();
  // A copy of the disk is as half-written as the disk itself, which still needs the journal.
  if (auto failure = application.finish(!isOwn && isDiskThere(journal))) return failure;
  finished.push_back(journal.title());
  return std::nullopt;
}

}  // namespace

std::vector<InterruptedChange> interruptedChanges(DeviceHandle& device) {
  std::vector<InterruptedChange> found;
  const auto identity = device.identity();
  if (!identity) return found;
  for (const std::string& folder : journalsInStateFolder()) {
    if (isOpenLongChange(folder)) continue;
    std::optional<ChangeFailure> failure;
    const auto journal = Journal::open(folder, failure);
    if (!journal && isJournalThere(folder)) found.push_back({"of a journal that cannot be read", folder, false});
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
    if (!journal && isJournalThere(folder)) {
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
