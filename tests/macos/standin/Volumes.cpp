// SPDX-License-Identifier: Apache-2.0
//
// Mounted file systems and their names.
#include <sys/attr.h>
#include <sys/mount.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "System.h"
#include "platform/simulated/SimulatedState.h"

namespace vorlix::standin {
namespace {

constexpr uint32_t kBlockSize = 512;

template <size_t kSize>
void setText(char (&to)[kSize], const std::string& text) {
  std::memcpy(to, text.data(), std::min(text.size(), kSize - 1));
}

// A volume of unknown size claims the largest number of blocks.
struct standin_statfs entryOf(const MountedVolume& volume, bool isFresh) {
  struct standin_statfs entry = {};
  const bool isCounted =
      volume.totalSize.value_or(0) % kBlockSize == 0 && volume.freeSpace.value_or(0) % kBlockSize == 0;
  entry.f_bsize = isCounted ? kBlockSize : 1;
  entry.f_blocks = volume.totalSize ? *volume.totalSize / entry.f_bsize : ~uint64_t{0};
  uint64_t free = volume.freeSpace.value_or(~uint64_t{0});
  const auto stale = system().staleFree.find(volume.mountPath.value_or(""));
  if (!isFresh && stale != system().staleFree.end()) free = stale->second;
  entry.f_bavail = volume.freeSpace ? free / entry.f_bsize : free;
  entry.f_bfree = entry.f_bavail;
  if (!volume.totalSize) entry.f_bsize = kBlockSize;
  entry.f_flags = volume.mountedFrom.starts_with("//") ? 0 : MNT_LOCAL;
  setText(entry.f_mntonname, volume.mountPath.value_or(""));
  setText(entry.f_mntfromname, volume.mountedFrom);
  return entry;
}

const MountedVolume* volumeAt(const std::string& path) {
  const auto& all = system().state->mountedVolumes;
  const auto found = std::find_if(all.begin(), all.end(),
                                  [&](const MountedVolume& volume) { return volume.mountPath.value_or("") == path; });
  return found == all.end() ? nullptr : &*found;
}

struct NameAnswer {
  uint32_t length;
  attrreference_t name;
};

}  // namespace
}  // namespace vorlix::standin

using namespace vorlix::standin;  // NOLINT: the system's names are global

extern "C" {

// Without a list, counts the mounts; with one, fills in as many as fit.
int getfsstat(struct standin_statfs* list, int size, int mode) {
  auto& state = *vorlix::standin::system().state;
  if (list == nullptr) {
    state.journal.push_back("list mounted volumes");
    return static_cast<int>(state.mountedVolumes.size());
  }
  const size_t count = std::min(state.mountedVolumes.size(), static_cast<size_t>(size) / sizeof *list);
  for (size_t i = 0; i < count; ++i) list[i] = entryOf(state.mountedVolumes[i], mode == MNT_WAIT);
  return static_cast<int>(count);
}

int standin_statfs(const char* path, struct standin_statfs* status) {
  const vorlix::MountedVolume* const volume = volumeAt(path);
  if (volume == nullptr) {
    errno = ENOENT;
    return -1;
  }
  if (volume->mountedFrom.starts_with("//")) report("a server was asked that may not answer");
  *status = entryOf(*volume, true);
  return 0;
}

// Supports a volume's name only. The length includes the terminating zero byte.
int getattrlist(const char* path, void* wanted, void* answer, size_t size, unsigned int) {
  const auto* const list = static_cast<const attrlist*>(wanted);
  const vorlix::MountedVolume* const volume = volumeAt(path);
  if (volume == nullptr || list->bitmapcount != ATTR_BIT_MAP_COUNT ||
      list->volattr != (ATTR_VOL_INFO | ATTR_VOL_NAME)) {
    errno = volume == nullptr ? ENOENT : EINVAL;
    return -1;
  }
  if (volume->mountedFrom.starts_with("//")) report("a server was asked that may not answer");
  NameAnswer head = {};
  head.name.attr_dataoffset = sizeof(attrreference_t);
  head.name.attr_length = static_cast<uint32_t>(volume->name.size() + 1);
  head.length = static_cast<uint32_t>(sizeof head + volume->name.size() + 1);
  std::vector<char> bytes(head.length, '\0');
  std::memcpy(bytes.data(), &head, sizeof head);
  std::memcpy(bytes.data() + sizeof head, volume->name.data(), volume->name.size());
  std::memcpy(answer, bytes.data(), std::min(size, bytes.size()));
  return 0;
}

}  // extern "C"
