// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Pauses.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "Arguments.h"
#include "Log.h"

using vorlix::Dissenter;
using vorlix::logMessage;
using vorlix::orEmpty;

namespace {

constexpr std::chrono::milliseconds kRunTime{100};
constexpr std::chrono::milliseconds kUnmountPause{1000};

constexpr int32_t kUnmountPending = -1;
constexpr int32_t kUnmountRefusedPositive = -2;
constexpr int32_t kUnmountRefused = -3;

// The results of the last mount and unmount. There is one of each at a time, because the functions wait for the result.
uint8_t mountStatus = 0;  // 1 while a mount is pending
int32_t unmountStatus = 0;

// Does not report a refusal, because callers look up the mount point.
void DiskMountCallback(const std::optional<Dissenter>&) {
  mountStatus = 0;
}

void DiskUnmountCallback(const std::optional<Dissenter>& dissenter) {
  if (!dissenter) {
    unmountStatus = 0;
  } else {
    unmountStatus = dissenter->status > 0 ? kUnmountRefusedPositive : kUnmountRefused;
  }
}

// Runs the loop until the completion has run. There is no time limit, because a system may need minutes to mount a
// damaged volume. A loop without sources has lost the session, and nothing could end the wait.
template <typename Pending>
void waitWhile(vorlix::RunLoop& loop, Pending pending) {
  vorlix::RunLoopResult result = vorlix::RunLoopResult::timedOut;
  do {
    result = loop.run(vorlix::kDefaultRunLoopMode, kRunTime);
  } while (pending() && result != vorlix::RunLoopResult::noSources);
}

// Absent only for a null name.
std::optional<std::string> efiSliceOf(const char* disk) {
  if (disk == nullptr) {
    logMessage("Issue opening efi partition on %s\n", "");
    return std::nullopt;
  }
  return std::string(disk) + "s1";
}

}  // namespace

const char* mounted_path(const char* name) try {
  thread_local std::string path;
  if (name == nullptr) return nullptr;
  const auto session = vorlix::platform().diskArbitration->createSession();
  if (!session) return nullptr;
  const auto disk = session->diskFromBSDName(name);
  if (!disk) return nullptr;
  const auto description = disk->copyDescription();
  if (!description) return nullptr;
  const auto volume = description->url(vorlix::kDescriptionVolumePath);
  if (!volume) return nullptr;
  path = volume->path();
  return path.c_str();
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return nullptr;
}

int32_t mount_disk(const char* name, int32_t read_write) try {
  const auto session = vorlix::platform().diskArbitration->createSession();
  if (!session) return 0;
  const auto loop = vorlix::platform().runLoops->current();
  mountStatus = 1;
  if (auto disk = session->diskFromBSDName(orEmpty(name))) {
    std::vector<std::string> arguments;
    if (read_write != 0) arguments = {"nobrowse", "rw"};
    session->schedule(*loop, vorlix::kDefaultRunLoopMode);
    disk->mount(arguments, DiskMountCallback);
    waitWhile(*loop, [] { return mountStatus != 0; });
    disk.reset();
  }
  session->unschedule(*loop, vorlix::kDefaultRunLoopMode);
  return 0;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return 0;
}

const char* mount_efi(const char* disk) try {
  const std::optional<std::string> slice = efiSliceOf(disk);
  if (!slice) return nullptr;
  mount_disk(slice->c_str(), 0);
  return mounted_path(slice->c_str());
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return nullptr;
}

int32_t unmount_disk(const char* name) try {
  logMessage("Unmounting disk %s\n", orEmpty(name));
  unmountStatus = kUnmountPending;
  const auto session = vorlix::platform().diskArbitration->createSession();
  if (!session) return unmountStatus;
  const auto loop = vorlix::platform().runLoops->current();
  if (auto disk = session->diskFromBSDName(orEmpty(name))) {
    session->schedule(*loop, vorlix::kDefaultRunLoopMode);
    disk->unmount(DiskUnmountCallback);
    waitWhile(*loop, [] { return unmountStatus == kUnmountPending; });
    disk.reset();
  }
  session->unschedule(*loop, vorlix::kDefaultRunLoopMode);
  return unmountStatus;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return -1;
}

int32_t unmount_efi(const char* disk) try {
  const std::optional<std::string> slice = efiSliceOf(disk);
  if (!slice) return -1;
  vorlix::platform().pauses->pause(kUnmountPause);  // gives the system time for what was just written to the slice
  unmount_disk(slice->c_str());
  return 0;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return -1;
}
