// SPDX-License-Identifier: Apache-2.0
#include "VolumeLook.h"

#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/VolumeNames.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <string_view>
#include <utility>

#include "Failure.h"
#include "Text.h"
#include "UnmountedPath.h"

namespace vorlix::tool {
namespace {

using Sight = FileFact::Sight;

constexpr const char* kHibernationFile = "hiberfil.sys";
constexpr std::string_view kHibernationMark = "hibr";  // in any case

bool isHibernationMark(std::string start) {
  for (char& letter : start) letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  return start == kHibernationMark;
}

FileFact unseen(std::string reason) {
  return {Sight::unseen, std::move(reason), {}};
}

FileFact missing() {
  return {Sight::missing, "", {}};
}

}  // namespace

VolumeLook::VolumeLook(const std::string& slice) {
  try {
    open(slice, placeOf(slice));
  } catch (const Failure& failure) {
    reason_ = failure.what();
  }
}

VolumeLook::VolumeLook(const std::string& slice, const DevicePlace& place) {
  try {
    open(slice, place);
  } catch (const Failure& failure) {
    reason_ = failure.what();
  }
}

void VolumeLook::open(const std::string& slice, const DevicePlace& place) {
  if (place.mountPoint) {
    root_.emplace(*place.mountPoint, isCaseBlindDevice(slice));
    return;
  }
  std::optional<Dissenter> refusal;
  volume_ = platform().volumeMirrors->openToRead(place.name, refusal);
  if (!volume_) reason_ = slice + " cannot be looked into: " + (refusal ? reasonText(*refusal) : "it is not mounted");
}

FileFact VolumeLook::look(const std::vector<std::string>& names, bool withContent, size_t limit) const {
  if (!root_ && !volume_) return unseen(reason_);
  try {
    return root_ ? lookInFolder(names, withContent, limit) : lookInBytes(names, withContent, limit);
  } catch (const Failure& failure) {
    return unseen(failure.what());
  }
}

FileFact VolumeLook::lookInFolder(const std::vector<std::string>& names, bool withContent, size_t limit) const {
  std::string path;
  for (size_t i = 0; i + 1 < names.size(); ++i) path += "/" + names[i];
  const auto folder = root_->findFolderAt(path);
  const auto spelled = folder ? folder->findFile(names.back()) : std::nullopt;
  if (!spelled) return missing();
  FileFact fact = {Sight::there, "", {}};
  if (withContent) fact.bytes = folder->content(*spelled, limit);
  return fact;
}

FileFact VolumeLook::lookInBytes(const std::vector<std::string>& names, bool withContent, size_t limit) const {
  UnmountedPath path;
  if (const auto refusal = walkUnmounted(*volume_, names, path)) return unseen(reasonText(*refusal));
  if (!path.isWhole || path.items.back().isFolder) return missing();
  const std::string name = path.path();
  if (withContent && path.items.back().size > limit) return unseen(name + " is larger than " + sizeText(limit));
  FileFact fact = {Sight::there, "", {}};
  if (!withContent) return fact;
  if (const auto refusal = volume_->read(name, fact.bytes)) return unseen(reasonText(*refusal));
  return fact;
}

std::optional<bool> VolumeLook::isHibernated() const {
  try {
    return root_ ? hibernationInFolder() : hibernationInBytes();
  } catch (const Failure&) {
    return std::nullopt;
  }
}

std::optional<bool> VolumeLook::hibernationInFolder() const {
  const auto spelled = root_->findFile(kHibernationFile);
  if (!spelled) return false;
  const Descriptor file(openat(root_->descriptor(), spelled->c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  std::array<char, kHibernationMark.size()> mark = {};
  if (!file || read(file.get(), mark.data(), mark.size()) < 0) return std::nullopt;
  return isHibernationMark(std::string(mark.begin(), mark.end()));
}

std::optional<bool> VolumeLook::hibernationInBytes() const {
  UnmountedPath path;
  if (!volume_ || walkUnmounted(*volume_, {kHibernationFile}, path)) return std::nullopt;
  if (!path.isWhole || path.items.back().isFolder) return false;
  std::vector<uint8_t> start;
  if (volume_->readStart(path.path(), kHibernationMark.size(), start)) return std::nullopt;
  return isHibernationMark(std::string(start.begin(), start.end()));
}

}  // namespace vorlix::tool
