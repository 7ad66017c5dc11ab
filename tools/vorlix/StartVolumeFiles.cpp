// SPDX-License-Identifier: Apache-2.0
#include "StartVolumeFiles.h"

#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/VolumeNames.h>

#include <utility>

#include "Arbitration.h"
#include "Failure.h"
#include "Files.h"

namespace vorlix::tool {
namespace {

constexpr size_t kLargestViewed = size_t{256} << 20;

class UnmountedFiles final : public FilesOfVolume {
 public:
  explicit UnmountedFiles(std::unique_ptr<UnmountedVolume> volume) : volume_(std::move(volume)) {}

  std::vector<Item> itemsIn(const std::string& folder, std::optional<std::string>& reason) const override {
    std::vector<UnmountedVolume::Item> found;
    const auto refusal = volume_->list(folder, found);
    reason = refusal ? std::optional(folder + ": " + reasonText(*refusal)) : std::nullopt;
    std::vector<Item> items;
    for (const UnmountedVolume::Item& item : found) {
      items.push_back({item.name, item.isFolder ? Item::Kind::folder : Item::Kind::file, item.size});
    }
    return items;
  }

  std::optional<std::string> read(const std::string& file, std::vector<uint8_t>& bytes) const override {
    const auto refusal = volume_->read(file, bytes);
    return refusal ? std::optional(file + ": " + reasonText(*refusal)) : std::nullopt;
  }

 private:
  std::unique_ptr<UnmountedVolume> volume_;
};

}  // namespace

std::vector<FilesOfVolume::Item> MountedFiles::itemsIn(const std::string& folder,
                                                       std::optional<std::string>& reason) const {
  reason.reset();
  std::vector<Item> items;
  try {
    const VolumeFolder opened = root_.folderAt(folder);
    for (const std::string& name : opened.names()) {
      const auto status = opened.statusOf(name);
      if (!status) continue;
      const bool isFile = S_ISREG(status->st_mode);
      const Item::Kind kind = isFile                     ? Item::Kind::file
                              : S_ISDIR(status->st_mode) ? Item::Kind::folder
                                                         : Item::Kind::other;
      items.push_back({name, kind, isFile ? static_cast<uint64_t>(status->st_size) : 0});
    }
  } catch (const Failure& failure) {
    reason = failure.what();
  }
  return items;
}

std::optional<std::string> MountedFiles::read(const std::string& file, std::vector<uint8_t>& bytes) const {
  try {
    const size_t slash = file.rfind('/');
    bytes = root_.folderAt(file.substr(0, slash)).content(file.substr(slash + 1), kLargestViewed);
    return std::nullopt;
  } catch (const Failure& failure) {
    return failure.what();
  }
}

std::unique_ptr<FilesOfVolume> lookAtFiles(const std::string& slice) {
  const DevicePlace place = placeOf(slice);
  if (place.mountPoint) {
    return std::make_unique<MountedFiles>(VolumeFolder(*place.mountPoint, isCaseBlindDevice(slice)));
  }
  std::optional<Dissenter> refusal;
  auto volume = platform().volumeMirrors->openToRead(place.name, refusal);
  if (volume) return std::make_unique<UnmountedFiles>(std::move(volume));
  throw Failure(slice, "its files cannot be read: " + (refusal ? reasonText(*refusal) : "mount it first"));
}

}  // namespace vorlix::tool
