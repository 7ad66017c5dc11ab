// SPDX-License-Identifier: Apache-2.0
#include "VolumeView.h"

#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/platform/Descriptor.h>
#include <Vorlix/platform/Platform.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Arbitration.h"
#include "DiskTables.h"
#include "Failure.h"
#include "Text.h"
#include "UnmountedPath.h"
#include "Volumes.h"

namespace vorlix::tool {

VolumeView::VolumeView(const std::string& volume, const std::optional<std::string>& state)
    : volume_(volume), state_(state) {
  std::error_code unreadable;
  if (std::filesystem::is_directory(volume, unreadable)) {
    folder_ = volume;
    return;
  }
  const DevicePlace place = placeOf(volume);
  if (place.mountPoint) {
    folder_ = *place.mountPoint;
    return;
  }
  mentionTruncation(place.name);
  openUnmounted(place.name);
  kind_ = volumeKindOf(place.name);
  makeFolder();
}

VolumeView::VolumeView(const DevicePlace& place, const std::optional<std::string>& kind) : volume_(place.name) {
  if (place.mountPoint) {
    folder_ = *place.mountPoint;
    return;
  }
  openUnmounted(place.name);
  kind_ = kind;
  makeFolder();
}

void VolumeView::openUnmounted(const std::string& device) {
  std::optional<Dissenter> refusal;
  unmounted_ = platform().volumeMirrors->openToRead(device, refusal);
  if (!unmounted_) throw Failure(volume_, refusal ? reasonText(*refusal) : "not mounted", state_);
}

void VolumeView::makeFolder() {
  temporary_ = std::make_unique<ViewFolder>();
  folder_ = temporary_->path();
}

std::optional<std::string> VolumeView::fileSystem() const {
  if (unmounted_) return kind_;
  const QuietLibrary quiet;
  return QDDeviceManager::sharedDeviceManager()->fileSystemTypeAtPath(folder_);
}

void VolumeView::needContent(const std::vector<std::string>& names, size_t limit) {
  need(names, limit);
}

void VolumeView::needName(const std::vector<std::string>& names) {
  need(names, std::nullopt);
}

void VolumeView::need(const std::vector<std::string>& names, std::optional<size_t> limit) {
  if (!unmounted_) return;
  UnmountedPath found;
  if (const auto refusal = walkUnmounted(*unmounted_, names, found))
    throw Failure(volume_, reasonText(*refusal), state_);
  std::string path;
  for (const UnmountedVolume::Item& item : found.items) {
    path += "/" + item.name;
    const std::string place = folder_ + path;
    if (item.isFolder) {
      if (mkdir(place.c_str(), S_IRWXU) != 0 && errno != EEXIST) throw Failure::ofErrno(place, errno);
      continue;
    }
    if (found.isWhole && limit && item.size > *limit) {
      throw Failure(volume_, path + " is larger than " + sizeText(*limit), state_);
    }
    write(path, found.isWhole && limit ? *limit : 0);
  }
}

void VolumeView::write(const std::string& path, size_t limit) const {
  std::vector<uint8_t> bytes;
  if (limit > 0) {
    if (const auto refusal = unmounted_->read(path, bytes)) throw Failure(volume_, reasonText(*refusal), state_);
  }
  const std::string place = folder_ + path;
  const Descriptor file(open(place.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file) throw Failure::ofErrno(place, errno);
  for (size_t written = 0; written < bytes.size();) {
    const ssize_t count = ::write(file.get(), bytes.data() + written, bytes.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throw Failure::ofErrno(place, count < 0 ? errno : EIO);
    written += static_cast<size_t>(count);
  }
}

}  // namespace vorlix::tool
