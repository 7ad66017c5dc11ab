// SPDX-License-Identifier: Apache-2.0
#include "MountedVolumes.h"

#include <sys/attr.h>
#include <sys/mount.h>
#include <sys/param.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <limits>
#include <set>
#include <string_view>

#include "platform/posix/MountFacts.h"

namespace vorlix {
namespace {

using MountList = std::vector<struct statfs>;

// The list may grow between the call for its length and the call for its entries, which returns no more than fit.
MountList mountList() {
  constexpr size_t kMost = std::numeric_limits<int>::max() / sizeof(struct statfs);
  for (size_t spare = 16; spare < kMost; spare *= 2) {
    const int count = getfsstat(nullptr, 0, MNT_NOWAIT);
    if (count < 0 || static_cast<size_t>(count) >= kMost - spare) break;
    MountList list(static_cast<size_t>(count) + spare);
    const int filled = getfsstat(list.data(), static_cast<int>(list.size() * sizeof list.front()), MNT_NOWAIT);
    if (filled < 0) break;
    const bool isWhole = static_cast<size_t>(filled) < list.size();
    list.resize(static_cast<size_t>(filled));
    if (isWhole) return list;
  }
  return {};
}

// The answer to getattrlist() for one variable-length attribute. Lengths and offsets are in bytes.
struct NameAnswer {
  uint32_t length;
  attrreference_t name;
  std::array<char, MAXPATHLEN> space;
};

std::optional<std::string> volumeName(const char* mountPath) {
  struct attrlist wanted = {};
  wanted.bitmapcount = ATTR_BIT_MAP_COUNT;
  wanted.volattr = ATTR_VOL_INFO | ATTR_VOL_NAME;
  NameAnswer answer = {};
  if (getattrlist(mountPath, &wanted, &answer, sizeof answer, 0) != 0) return std::nullopt;
  const auto* const bytes = reinterpret_cast<const char*>(&answer);
  const int64_t start = int64_t{offsetof(NameAnswer, name)} + answer.name.attr_dataoffset;
  if (start < 0 || start + int64_t{answer.name.attr_length} > int64_t{sizeof answer}) return std::nullopt;
  const size_t length = strnlen(bytes + start, answer.name.attr_length);
  if (length == 0) return std::nullopt;
  return std::string(bytes + start, length);
}

MountedVolume volumeOf(const struct statfs& mount) {
  MountedVolume volume;
  volume.mountPath = mount.f_mntonname;
  volume.mountedFrom = mount.f_mntfromname;
  const bool isLocal = (mount.f_flags & MNT_LOCAL) != 0;
  // The list's free space may be stale.
  struct statfs now = {};
  const struct statfs& sizes = isLocal && statfs(mount.f_mntonname, &now) == 0 ? now : mount;
  volume.totalSize = bytesIn(sizes.f_blocks, sizes.f_bsize);
  volume.freeSpace = bytesIn(sizes.f_bavail, sizes.f_bsize);
  const std::optional<std::string> name = isLocal ? volumeName(mount.f_mntonname) : std::nullopt;
  volume.name = name ? *name : lastComponent(*volume.mountPath);
  return volume;
}

}  // namespace

std::vector<MountedVolume> MacMountedVolumes::volumes() {
  std::vector<MountedVolume> volumes;
  std::set<std::string_view> devices;
  const MountList list = mountList();
  for (const struct statfs& mount : list) {
    const std::string_view source = mount.f_mntfromname;
    const bool isDevice = source.substr(0, 5) == "/dev/";
    if (isDevice && !devices.insert(source).second) continue;
    volumes.push_back(volumeOf(mount));
  }
  return volumes;
}

}  // namespace vorlix
