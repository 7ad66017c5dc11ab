// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/WimVolume.h>

#include <Vorlix/Allocation.h>
#include <Vorlix/VolumeFacts.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemError.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>

#include "BlockMap.h"
#include "RawSource.h"

namespace vorlix {
namespace {

constexpr size_t kAppliedStart = 4096;  // of the volume's bytes that the facts give

// What the file system says is in use, as the block map of a raw image. Absent for a doubt: then all of it is.
std::optional<BlockMap> usedRanges(DeviceHandle& volume, uint64_t size) {
  const auto read = [&](uint64_t offset, std::span<uint8_t> bytes) {
    const ssize_t got = volume.readAt(bytes.data(), bytes.size(), offset);
    return got < 0 ? size_t{0} : static_cast<size_t>(got);
  };
  const Allocation allocation = readAllocation(read, size);
  if (!allocation.doubt.empty()) return std::nullopt;
  BlockMap map;
  map.imageSize = size;
  for (const ByteRange& range : allocation.used) map.ranges.push_back({range.offset, range.size});
  map.hasHash.resize(map.ranges.size());
  return map;
}

std::unique_ptr<ImageSource> sourceOver(std::unique_ptr<DeviceHandle> volume, const ImageFacts& wim,
                                        const WimApplication& application, ImageFailure& failure) {
  auto map = usedRanges(*volume, application.place.size);
  SourceParts parts;
  parts.name = application.wim;
  parts.largestSize = application.place.size;
  const auto file = SourceFile::over(std::move(volume), failure.reason);
  if (file == nullptr) {
    failure.subject = application.wim;
    return nullptr;
  }
  ImageFacts& facts = parts.facts;
  facts = wim;
  facts.size = application.place.size;
  facts.fileSize = file->size();
  const size_t start = std::min(file->start().size(), kAppliedStart);
  facts.start.assign(file->start().begin(), file->start().begin() + static_cast<std::ptrdiff_t>(start));
  facts.volume = volumeFacts(facts.start);
  facts.isMadeAnew = true;
  if (map) {
    facts.ranges = map->ranges;
    facts.usedSize = 0;
    for (const ImageRange& range : map->ranges) *facts.usedSize += range.length;
  }
  parts.content = std::make_unique<Content>(file);
  return std::make_unique<RawSource>(std::move(parts), std::move(map));
}

}  // namespace

std::optional<std::string> wimObstacle(const ImageFacts& facts) {
  const WimFacts& wim = *facts.wim;
  if (facts.packing) return "is packed; a WIM has to be unpacked first";
  if (!facts.fileSize) return "comes from a pipe; a WIM has to be a file";
  if (wim.parts != 1) {
    return "is part " + std::to_string(wim.part) + " of " + std::to_string(wim.parts) +
           " of a split WIM; `wimjoin` makes one file of them";
  }
  if (wim.isEncrypted) return "is encrypted, and there is no key for it";
  if (wim.imageCount == 0) return "has no image";
  if (wim.isIncomplete) return "has only a part of what its images need";
  if (wim.images.size() != wim.imageCount) return "its list of images is damaged";
  return std::nullopt;
}

uint64_t bytesOfFiles(const WimFacts::Image& image) {
  return image.size - std::min(image.size, image.linkedSize);
}

uint64_t bytesOfScratch(const WimFacts::Image& image, uint64_t volumeSize) {
  constexpr uint64_t kOfEachFile = 6144;  // its record, its entry in a folder, half a cluster, rounded up
  constexpr uint64_t kOfTheVolume = uint64_t{80} << 20;  // its log above all
  constexpr uint64_t kBytesOfABit = uint64_t{4096} * 8;  // of the bitmap of clusters
  const uint64_t files = std::min(image.files, volumeSize / kOfEachFile);
  const uint64_t content = std::min(bytesOfFiles(image), volumeSize);
  return std::min(volumeSize, content + files * kOfEachFile + kOfTheVolume + volumeSize / kBytesOfABit);
}

std::optional<std::string> scratchObstacle(const std::string& folder, uint64_t bytes) {
  std::error_code error;
  if (!std::filesystem::is_directory(folder, error)) {
    return error ? SystemError{error.value()}.reason() : SystemError{ENOTDIR}.reason();
  }
  const std::filesystem::space_info space = std::filesystem::space(folder, error);
  if (error) return SystemError{error.value()}.reason();
  if (space.available >= bytes) return std::nullopt;
  return "has room for " + std::to_string(space.available) +
         " bytes, and the volume is made there first, which takes up to " + std::to_string(bytes);
}

WimVolume applyWim(const ImageFacts& facts, const WimApplication& application, const WimObserver& observer) try {
  WimVolume result;
  AppliedWim applied = platform().wimApplying->apply(application, observer);
  result.isStopped = applied.isStopped;
  result.failure = {applied.subject, applied.reason};
  if (applied.volume != nullptr) {
    result.source = sourceOver(std::move(applied.volume), facts, application, result.failure);
  }
  return result;
} catch (const std::exception& error) {
  WimVolume result;
  result.failure = {application.wim, error.what()};
  return result;
}

}  // namespace vorlix
