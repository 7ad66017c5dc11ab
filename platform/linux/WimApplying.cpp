// SPDX-License-Identifier: Apache-2.0
#include "WimApplying.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <utility>

#include <Vorlix/platform/Descriptor.h>
#include <Vorlix/platform/SystemError.h>
#include "Command.h"
#include "platform/linux/applying/Module.h"
#include "platform/posix/FileHandle.h"

namespace vorlix {
namespace {

// The geometry that BIOSes take for disks of any size. A start counts sectors, but boot code may divide by these.
constexpr const char* kHeads = "255";
constexpr const char* kSectorsOfTrack = "63";

// A file without a name, so that nothing is left behind, however the process ends.
Descriptor makeScratchFile(const std::string& folder) {
  Descriptor file(aboveStandardStreams(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600)));
  if (file || (errno != EOPNOTSUPP && errno != EISDIR && errno != ENOENT)) return file;
  std::string path = folder + "/vorlix-XXXXXX";
  file = Descriptor(aboveStandardStreams(mkostemp(path.data(), O_CLOEXEC)));
  if (file) unlink(path.c_str());
  return file;
}

std::string nameOfDescriptor(int descriptor) {
  return "/proc/self/fd/" + std::to_string(descriptor);
}

std::string lastLineOf(const std::string& text) {
  const size_t end = text.find_last_not_of('\n');
  if (end == std::string::npos) return {};
  const size_t start = text.rfind('\n', end);
  return text.substr(start == std::string::npos ? 0 : start + 1,
                     end - (start == std::string::npos ? 0 : start + 1) + 1);
}

// @return why the volume could not be made; empty if it was.
std::string makeNTFS(int file, const NTFSPlace& place) {
  // The boot sector has 32 bits for it. A volume behind that is not for a start by a BIOS anyway.
  const bool isFar = place.firstSector > std::numeric_limits<uint32_t>::max();
  Command command;
  command.environment = {"LC_ALL=C"};
  command.shared = file;
  CommandResult result;
  // Users have the system's programs not always in their PATH.
  for (const char* const program : {"mkntfs", "/usr/sbin/mkntfs", "/sbin/mkntfs"}) {
    command.arguments = {program,
                         "--quiet",
                         "--fast",
                         "--force",
                         "--sector-size",
                         std::to_string(place.sectorSize),
                         "--partition-start",
                         std::to_string(isFar ? 0 : place.firstSector),
                         "--heads",
                         kHeads,
                         "--sectors-per-track",
                         kSectorsOfTrack,
                         nameOfDescriptor(kSharedDescriptor),
                         std::to_string(place.size / place.sectorSize)};
    result = runCommand(command);
    if (result.launchError != ENOENT) break;
  }
  // mkntfs succeeds even if it could not write the second boot sector.
  const size_t unwritten = result.errors.find("Error writing");
  if (result.succeeded() && unwritten == std::string::npos) return {};
  if (result.launchError == ENOENT) return "an NTFS volume cannot be made without mkntfs (ntfs-3g)";
  if (result.launchError != 0) return "mkntfs: " + SystemError{result.launchError}.reason();
  const std::string line = lastLineOf(
      unwritten == std::string::npos ? result.errors : result.errors.substr(0, result.errors.find('\n', unwritten)));
  return "mkntfs failed" + (line.empty() ? "" : ": " + line);
}

bool isFull(int file) {
  constexpr uint64_t kAlmostNothing = uint64_t{1} << 20;
  struct statvfs room = {};
  return fstatvfs(file, &room) == 0 && uint64_t{room.f_bavail} * room.f_frsize < kAlmostNothing;
}

bool tellObserver(void* context, uint64_t done, uint64_t total) {
  try {
    return (*static_cast<const WimObserver*>(context))(done, total);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

AppliedWim LinuxWimApplying::apply(const WimApplication& application, const WimObserver& observer) {
  AppliedWim result;
  result.subject = application.scratch;
  std::string unloaded;
  WimCall* const call = wimCall(unloaded);
  if (call == nullptr) {
    result.subject = application.wim;
    result.reason = unloaded;
    return result;
  }
  Descriptor file = makeScratchFile(application.scratch);
  if (!file || ftruncate(file.get(), static_cast<off_t>(application.place.size)) != 0) {
    result.reason = SystemError{errno}.reason();
    return result;
  }
  const auto stop = [&] {
    result.isStopped = true;
    return std::move(result);
  };
  if (!observer(0, 0)) return stop();
  result.reason = makeNTFS(file.get(), application.place);
  if (!observer(0, 0)) return stop();  // a signal for both may have ended mkntfs
  if (!result.reason.empty()) {
    if (isFull(file.get())) result.reason = SystemError{ENOSPC}.reason();
    return result;
  }
  std::array<char, 512> reason = {};
  WimObserver told = observer;
  const WimProgress progress = {&told, tellObserver};
  const WimEnd end = call(application.wim.c_str(), static_cast<int>(application.index),
                          nameOfDescriptor(file.get()).c_str(), &progress, reason.data(), reason.size());
  if (end == WimEnd::stopped) return stop();
  if (end == WimEnd::failed) {
    const bool hasRoom = !isFull(file.get());
    if (hasRoom) result.subject = application.wim;
    result.reason = reason.data();
    if (hasRoom && result.reason == SystemError{ENOSPC}.reason()) result.reason = "the image does not fit the volume";
    return result;
  }
  result.volume = std::make_unique<FileHandle>(file.release(), Extent{0, application.place.size}, nullptr,
                                               application.place.sectorSize);
  return result;
}

}  // namespace vorlix
