// SPDX-License-Identifier: Apache-2.0
#include "VolumeView.h"

#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/platform/Descriptor.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/VolumeNames.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "Arbitration.h"
#include "Failure.h"
#include "Text.h"
#include "Volumes.h"

namespace vorlix::tool {
namespace {

std::string makeTemporaryFolder() {
  std::error_code none;
  const std::filesystem::path parent = std::filesystem::temp_directory_path(none);
  std::string folder = (none ? std::filesystem::path("/tmp") : parent) / "vorlix-view-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) throw Failure::ofErrno(folder, errno);
  return folder;
}

}  // namespace

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
  openUnmounted(place.name);
  kind_ = volumeKindOf(place.name);
  folder_ = makeTemporaryFolder();
}

VolumeView::VolumeView(const DevicePlace& place, const std::optional<std::string>& kind) : volume_(place.name) {
  if (place.mountPoint) {
    folder_ = *place.mountPoint;
    return;
  }
  openUnmounted(place.name);
  kind_ = kind;
  folder_ = makeTemporaryFolder();
}

void VolumeView::openUnmounted(const std::string& device) {
  std::optional<Dissenter> refusal;
  unmounted_ = platform().volumeMirrors->openToRead(device, refusal);
  if (!unmounted_) throw Failure(volume_, refusal ? reasonText(*refusal) : "not mounted", state_);
}

VolumeView::~VolumeView() {
  std::error_code ignored;
  if (unmounted_) std::filesystem::remove_all(folder_, ignored);
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
  std::string path;
  for (size_t i = 0; i < names.size(); ++i) {
    std::vector<UnmountedVolume::Item> items;
    if (const auto refusal = unmounted_->list(path, items)) throw Failure(volume_, reasonText(*refusal), state_);
    const auto found = std::find_if(items.begin(), items.end(), [&](const UnmountedVolume::Item& item) {
      return !spellingsOf({item.name}, names[i]).empty();
    });
    if (found == items.end()) return;
    path += "/" + found->name;
    const std::string place = folder_ + path;
    if (found->isFolder) {
      if (mkdir(place.c_str(), S_IRWXU) != 0 && errno != EEXIST) throw Failure::ofErrno(place, errno);
      continue;
    }
    const bool isLast = i + 1 == names.size();
    if (isLast && limit && found->size > *limit) {
      throw Failure(volume_, path + " is larger than " + sizeText(*limit), state_);
    }
    write(path, isLast && limit ? *limit : 0);
    return;
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
