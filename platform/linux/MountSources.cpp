// SPDX-License-Identifier: Apache-2.0
#include "MountSources.h"

#include <grp.h>
#include <pwd.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>

#include "ImageFiles.h"

namespace vorlix {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kDeleted = " (deleted)";  // the end of the kernel's path of a file without that name
constexpr size_t kMostGroups = 1024;

std::string pathNamedBy(const std::string& source) {
  if (source.rfind(kNTFSDriver, 0) != 0) return source;
  const size_t first = source.find('/', kNTFSDriver.size());
  if (first == std::string::npos) return source;
  return "/dev/" + source.substr(first + 1, source.find('/', first + 1) - first - 1);
}

std::string linkAt(const fs::path& path) {
  std::error_code error;
  return fs::read_symlink(path, error).string();
}

std::vector<fs::path> entriesOf(const fs::path& folder) {
  std::vector<fs::path> entries;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    entries.push_back(entry->path());
  }
  return entries;
}

bool isNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool isMemberOf(uid_t user, gid_t group) {
  std::vector<char> texts(16384);
  passwd entry = {};
  passwd* found = nullptr;
  if (getpwuid_r(user, &entry, texts.data(), texts.size(), &found) != 0 || found == nullptr) return false;
  std::vector<gid_t> groups(kMostGroups);
  int count = static_cast<int>(groups.size());
  if (getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) return false;
  groups.resize(static_cast<size_t>(count));
  return std::find(groups.begin(), groups.end(), group) != groups.end();
}

bool mayOpen(uid_t user, const struct stat& status, bool forWriting) {
  if (user == 0 || user == geteuid()) return true;
  mode_t allowed = status.st_mode & 7U;
  if (user == status.st_uid) {
    allowed = status.st_mode >> 6 & 7U;
  } else if (isMemberOf(user, status.st_gid)) {
    allowed = status.st_mode >> 3 & 7U;
  }
  return (allowed & (forWriting ? 2U : 4U)) != 0;
}

// Returns the number after "offset=" in the arguments of a process, or 0.
uint64_t offsetArgument(const std::string& processFolder) {
  constexpr std::string_view kOption = "offset=";
  constexpr std::string_view kBefore("\0,-o", 4);  // "-o offset=", "ro,offset=", "--offset=", "-ooffset="
  std::ifstream file(processFolder + "/cmdline", std::ios::binary);
  const std::string arguments{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  for (size_t at = arguments.find(kOption); at != std::string::npos; at = arguments.find(kOption, at + 1)) {
    if (at == 0 || kBefore.find(arguments[at - 1]) == std::string_view::npos) continue;
    const char* const digits = arguments.data() + at + kOption.size();
    const char* const end = arguments.data() + arguments.size();
    uint64_t offset = 0;
    const auto [stop, error] = std::from_chars(digits, end, offset);
    const bool isWholeNumber = error == std::errc() && (stop == end || *stop == '\0' || *stop == ',');
    if (isWholeNumber) return offset;
  }
  return 0;
}

// A driver's log and its standard streams are not its source.
bool isOpenForReading(const fs::path& descriptor) {
  struct stat link = {};
  const std::string number = descriptor.filename();
  return number != "0" && number != "1" && number != "2" && lstat(descriptor.c_str(), &link) == 0 &&
         (link.st_mode & S_IRUSR) != 0;
}

// Returns whether a file has that name, which may be relative to any folder.
bool isCalled(const std::string& path, const std::string& name) {
  if (name.starts_with('/')) return path == name;
  fs::path last;
  for (const fs::path& step : fs::path(name).lexically_normal()) {
    if (step != ".." && step != ".") last /= step;
  }
  return !last.empty() && path.ends_with("/" + last.string());
}

}  // namespace

std::optional<MountSource> MountSources::of(const MountPoint& mount) {
  if (major(mount.device) != 0) {
    auto known = devices_.find(mount.device);
    if (known == devices_.end()) known = devices_.emplace(mount.device, originOfDevice(mount.device)).first;
    return MountSource{known->second, mount.device, "", {}};
  }
  if (!mount.mayNameSource || mount.source.empty()) return std::nullopt;
  const auto known = drivers_.find(mount.number);
  if (known != drivers_.end()) return known->second;
  return drivers_.emplace(mount.number, ofDriver(mount)).first->second;
}

// Prefers, of the files that the driver has open, the one that the name leads to, then one with that name, then the
// only one.
std::optional<MountSource> MountSources::ofDriver(const MountPoint& mount) {
  const std::string name = pathNamedBy(mount.source);
  const bool isPath = name.starts_with('/');
  struct stat named = {};
  const bool isThere = isPath && stat(name.c_str(), &named) == 0;
  const std::optional<VolumeOrigin> namedOrigin = isThere ? originOf(named) : std::nullopt;
  if (isThere && !namedOrigin) return std::nullopt;  // a folder, for example

  uint64_t offset = 0;
  const std::vector<OpenFile> files = filesOfDriver(mount, offset);
  const auto find = [&](auto condition) { return std::find_if(files.begin(), files.end(), condition); };
  auto file = find([&](const OpenFile& open) { return namedOrigin && originOf(open.status) == namedOrigin; });
  if (file == files.end()) file = find([&](const OpenFile& open) { return isCalled(open.path, name); });
  if (file == files.end() && isPath && files.size() == 1) file = files.begin();

  const bool isKnown = file != files.end();
  if (!isKnown && !namedOrigin) return std::nullopt;
  const struct stat& status = isKnown ? file->status : named;
  if (!mayOpen(mount.user, status, !mount.isReadOnly)) return std::nullopt;
  MountSource source;
  source.origin = isKnown ? *originOf(status, offset) : *namedOrigin;
  if (S_ISBLK(status.st_mode)) {
    source.device = status.st_rdev;
  } else if (!isKnown || originOf(status) == namedOrigin) {
    source.file = imageBSDName(name);
  } else if (!file->isDeleted && originOfPath(file->path) == originOf(status)) {
    source.file = file->path;
  }
  if (!isKnown) return source;
  for (const OpenFile& open : files) {
    if (originOf(open.status) == originOf(status)) source.holders.push_back(open.place);
  }
  return source;
}

bool MountSources::readOpenFile(OpenFile& file) {
  file.path = linkAt(file.place);
  if (!file.path.starts_with('/') || stat(file.place.c_str(), &file.status) != 0) return false;
  const std::optional<VolumeOrigin> origin = originOf(file.status);
  file.isDeleted = file.path.ends_with(kDeleted) && originOfPath(file.path) != origin;
  if (file.isDeleted) file.path.resize(file.path.size() - kDeleted.size());
  return origin.has_value();
}

const std::vector<MountSources::DriverProcess>& MountSources::driverProcesses() {
  if (processes_) return *processes_;
  processes_.emplace();
  for (const fs::path& process : entriesOf("/proc")) {
    if (!isNumber(process.filename())) continue;
    for (const fs::path& descriptor : entriesOf(process / "fd")) {
      if (linkAt(descriptor) != "/dev/fuse") continue;
      DriverProcess driver{process.string(), std::nullopt};
      std::ifstream info(process / "fdinfo" / descriptor.filename());
      for (std::string field; info >> field;) {
        unsigned long number = 0;
        if (field == "fuse_connection:" && info >> number) driver.connection = number;
      }
      processes_->push_back(std::move(driver));
    }
  }
  return *processes_;
}

// Some kernels do not report which mount a driver serves. Then only files with the right name count.
std::vector<MountSources::OpenFile> MountSources::filesOfDriver(const MountPoint& mount, uint64_t& offset) {
  std::vector<OpenFile> files;
  if (!mount.isByDriver) return files;
  const std::string name = pathNamedBy(mount.source);
  for (const DriverProcess& driver : driverProcesses()) {
    if (driver.connection && *driver.connection != minor(mount.number)) continue;
    for (const fs::path& descriptor : entriesOf(driver.folder + "/fd")) {
      OpenFile file;
      file.place = descriptor.string();
      if (!isOpenForReading(descriptor) || !readOpenFile(file)) continue;
      if (!driver.connection && !isCalled(file.path, name)) continue;
      offset = offsetArgument(driver.folder);
      files.push_back(std::move(file));
    }
  }
  return files;
}

std::vector<MountPoint> mountsOf(const DeviceLocation& location, Extent window) {
  const std::optional<VolumeOrigin> wanted = originOfPath(location.node, location.hasOwnNode() ? 0 : window.offset);
  if (!wanted) return {};
  MountSources sources;
  std::vector<MountPoint> mounts = mountTable();
  std::erase_if(mounts, [&](const MountPoint& mount) {
    const std::optional<MountSource> source = sources.of(mount);
    return !source || source->origin != *wanted;
  });
  return mounts;
}

}  // namespace vorlix
