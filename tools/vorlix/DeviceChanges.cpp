// SPDX-License-Identifier: Apache-2.0
#include "DeviceChanges.h"

#include <Vorlix/platform/Platform.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "Complaint.h"
#include "DiskTables.h"
#include "Failure.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

bool finishedOne = false;

[[noreturn]] void failToOpen(const std::string& device, int reason) {
  if (reason == EWOULDBLOCK) throw Failure(device, "locked by another process");
  if (reason == ENOENT) {
    if (const auto why = whySliceIsMissing(device)) throw Failure(device, *why);
  }
  throw Failure::ofErrno(device, reason);
}

}  // namespace

std::shared_ptr<DeviceHandle> openToLook(const std::string& device, DeviceLock lock, const DiskTables* around) {
  std::shared_ptr<DeviceHandle> handle = platform().deviceFile->open(device, DeviceAccess::readOnly, lock);
  if (!handle) failToOpen(device, errno);
  mentionLostHeader(device, *handle, around);
  for (const InterruptedChange& change : interruptedChanges(*handle)) {
    const std::string name = std::filesystem::path(change.journal).filename().string();
    complain(device + ": a change was cut off (" + change.title + "); " +
             (change.isLong ? "vorlix restore --resume " + name : "the next command that writes here") +
             " finishes it");
  }
  return handle;
}

std::shared_ptr<DeviceHandle> openToChange(const std::string& device, const DiskTables* around) {
  DeviceFile& files = *platform().deviceFile;
  std::shared_ptr<DeviceHandle> handle = files.open(device, DeviceAccess::readWrite, DeviceLock::exclusive);
  if (!handle) handle = files.open(device, DeviceAccess::readWrite, DeviceLock::shared);
  if (!handle) failToOpen(device, errno);
  mentionLostHeader(device, *handle, around);
  std::vector<std::string> finished;
  const auto failure = settleInterruptedChanges(device, *handle, finished);
  for (const std::string& title : finished) {
    finishedOne = true;
    std::printf("Finished   %s, which was cut off earlier\n", printable(title).c_str());
  }
  std::fflush(stdout);
  if (failure) fail(*failure);
  return handle;
}

void finishInterruptedChanges(const std::string& slice) {
  const auto handle = platform().deviceFile->open(slice, DeviceAccess::readOnly, DeviceLock::none);
  if (!handle) throw Failure::ofErrno(slice, errno);
  if (!interruptedChanges(*handle).empty()) openToChange(slice);
}

bool finishedEarlierChange() {
  return finishedOne;
}

std::string applyOrFail(const DiskChange& change, const ChangeBackup& backup) {
  std::string kept;
  if (const auto failure = applyChange(change, backup, kept)) fail(*failure);
  return kept;
}

void fail(const ChangeFailure& failure) {
  if (failure.state == kNothingWritten) throw Failure(failure.subject, failure.reason);
  throw Failure(failure.subject, failure.reason, failure.state);
}

}  // namespace vorlix::tool
