// SPDX-License-Identifier: Apache-2.0
#include "CodeSigning.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <optional>

#include <Vorlix/platform/Descriptor.h>
#include "SignersUnit.h"
#include "SigningRequirement.h"

namespace vorlix {
namespace {

/// Larger executables are refused, so that a sparse file does not keep the host busy for days.
constexpr off_t kLargestExecutable = off_t{1} << 30;

/// A process that a descriptor refers to, so that another process cannot take its identifier unnoticed.
class PinnedProcess {
 public:
  static std::optional<PinnedProcess> pin(int32_t identifier) {
    PinnedProcess process;
    // The C library has a function for this call only since version 2.36.
    process.process_ = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, identifier, 0U)));
    if (!process.process_) return std::nullopt;
    process.link_ = "/proc/" + std::to_string(identifier) + "/exe";
    process.executable_ = Descriptor(open(process.link_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!process.executable_ || fstat(process.executable_.get(), &process.status_) != 0) return std::nullopt;
    // If the process still runs, its identifier was not reused, and the link was that of this process.
    if (process.hasEnded()) return std::nullopt;
    return process;
  }

  int executable() const { return executable_.get(); }

  bool isReadable() const { return S_ISREG(status_.st_mode) && status_.st_size <= kLargestExecutable; }

  /// Returns the path of the executable. Absent if no path leads to it now: it was deleted, moved or replaced, or this
  /// process cannot see it.
  std::optional<std::string> path() const {
    char target[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(executable_.get());
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    if (length <= 0 || static_cast<size_t>(length) == sizeof target) return std::nullopt;
    std::string path(target, static_cast<size_t>(length));
    if (path[0] != '/' || !isExecutable(path)) return std::nullopt;
    return path;
  }

  /// Returns whether the process still runs the executable that it ran when it was pinned, as far as can be seen.
  bool isUnchanged() const { return isExecutable(link_) && !hasEnded(); }

 private:
  PinnedProcess() = default;

  bool hasEnded() const {
    pollfd descriptor{process_.get(), POLLIN, 0};
    return poll(&descriptor, 1, 0) != 0;  // readable after the end; an error counts as the end
  }

  bool isExecutable(const std::string& path) const {
    struct stat now = {};
    return stat(path.c_str(), &now) == 0 && now.st_dev == status_.st_dev && now.st_ino == status_.st_ino;
  }

  Descriptor process_;
  Descriptor executable_;
  std::string link_;
  struct stat status_ = {};
};

}  // namespace

LinuxCodeSigning::LinuxCodeSigning() : anchors_(VORLIX_ANCHOR_FOLDER) {}

CodeCheck LinuxCodeSigning::check(int32_t process, const std::string& requirement) {
  const auto pinned = PinnedProcess::pin(process);
  if (!pinned) return CodeCheck::guestFailed;
  const auto rule = parseSigningRequirement(requirement);
  if (!rule) return CodeCheck::requirementFailed;

  if (!pinned->isReadable()) return CodeCheck::invalid;
  const auto path = pinned->path();
  if (!path) return CodeCheck::invalid;
  const auto unit = signersUnit(*path + kSignatureSuffix, pinned->executable(), anchors_);
  const bool signedByTeam = unit == rule->organisationalUnit;
  return signedByTeam && pinned->path() == path && pinned->isUnchanged() ? CodeCheck::valid : CodeCheck::invalid;
}

}  // namespace vorlix
