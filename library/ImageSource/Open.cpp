// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/ImageSource.h>

#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "BlockMap.h"
#include "CloneSource.h"
#include "Formats.h"
#include "RawSource.h"
#include "WimSource.h"

namespace vorlix {
namespace {

constexpr size_t kVolumeStart = 4096;  // of the volume's bytes that the facts give

bool isRegularFile(const std::string& path) {
  return platform().files->kindOf(path) == FileKind::file;
}

// The block map that lies beside a file; empty where none does.
std::string findBlockMap(const std::string& path) {
  if (path == kStandardInput || !isRegularFile(path)) return {};
  const size_t slash = path.rfind('/');
  const size_t name = slash == std::string::npos ? 0 : slash + 1;
  for (std::string stem = path;;) {
    const std::string candidate = stem + ".bmap";
    if (isRegularFile(candidate)) return candidate;
    const size_t dot = stem.rfind('.');
    if (dot == std::string::npos || dot <= name) return {};
    stem.resize(dot);
  }
}

// Ranges that touch each other are one for those who ask what is in use.
std::vector<ImageRange> joined(const std::vector<ImageRange>& ranges) {
  std::vector<ImageRange> result;
  for (const ImageRange& range : ranges) {
    if (!result.empty() && result.back().offset + result.back().length == range.offset) {
      result.back().length += range.length;
    } else {
      result.push_back(range);
    }
  }
  return result;
}

class Opening {
 public:
  Opening(std::string path, const ImageSourceOptions& options, ImageFailure& failure)
      : path_(std::move(path)), failure_(failure) {
    parts_.name = path_;
    parts_.largestSize = options.largestSize;
  }

  std::unique_ptr<ImageSource> open() {
    if (path_ != kStandardInput && platform().files->kindOf(path_) == FileKind::folder) return openBackup();
    return openFile(path_, {});
  }

 private:
  std::unique_ptr<ImageSource> fail(std::string reason) {
    failure_ = {parts_.name, std::move(reason)};
    return nullptr;
  }

  std::unique_ptr<ImageSource> openBackup() {
    const std::string folder = path_.ends_with('/') ? path_ : path_ + "/";
    for (const char* const name : {kBackupVolume, kBackupBlockMap}) {
      if (!isRegularFile(folder + name)) return fail(std::string("the folder is no backup: ") + name + " is missing");
    }
    parts_.facts.kind = ImageKind::backup;
    return openFile(folder + kBackupVolume, folder + kBackupBlockMap);
  }

  std::unique_ptr<ImageSource> openFile(const std::string& file, const std::string& map) {
    parts_.name = file;
    std::string reason;
    file_ = SourceFile::open(file, reason);
    if (file_ == nullptr) return fail(reason);
    if (file_->start().empty()) return fail("it is empty");
    ImageFacts& facts = parts_.facts;
    facts.fileSize = file_->size();
    facts.identity = file_->identity();
    facts.packing = packingOf(file_->start());
    if (!openContent(reason)) return fail(reason);
    const auto start = parts_.content->start();
    if (start.empty()) return fail("it is empty");
    if (packingOf(start)) return fail("what is packed in it is packed again");
    const bool isBackup = facts.kind == ImageKind::backup;
    if (!isBackup && isWim(start)) return openWim();
    if (!isBackup && isCloneImage(start)) return openClone();
    return openRaw(isBackup ? map : findBlockMap(file));
  }

  bool openContent(std::string& reason) {
    const auto packing = parts_.facts.packing;
    if (!packing) {
      parts_.content = std::make_unique<Content>(file_);
      return true;
    }
    auto unpacked = platform().unpacking->open(*packing, file_, reason);
    if (unpacked == nullptr) return false;
    parts_.content = std::make_unique<Content>(file_, std::move(unpacked));
    if (parts_.content->begin()) return true;
    reason = parts_.content->reason();
    return false;
  }

  void describe(std::string what) {
    if (parts_.facts.packing && parts_.facts.kind != ImageKind::backup) {
      what += std::string(" packed with ") + wordFor(*parts_.facts.packing);
    }
    parts_.facts.description = std::move(what);
  }

  std::unique_ptr<ImageSource> openWim() {
    std::string reason;
    const auto start = parts_.content->start();
    auto wim = parseWimHeader(start, reason);
    if (!wim) return fail(reason);
    if (!parts_.facts.packing && file_->size()) readWimList(start, *file_, *wim);
    parts_.facts.key = wimKey(start);
    parts_.facts.kind = ImageKind::wim;
    parts_.facts.wim = std::move(*wim);
    describe(parts_.facts.wim->isSolid ? "ESD" : "WIM");
    return std::make_unique<WimSource>(std::move(parts_));
  }

  std::unique_ptr<ImageSource> openClone() {
    std::string reason;
    const auto start = parts_.content->start();
    const auto header = parseCloneHeader(start, reason);
    if (!header) return fail(reason);
    ImageFacts& facts = parts_.facts;
    facts.kind = ImageKind::ntfsclone;
    facts.size = header->size;
    facts.usedSize = std::min(header->size, (header->inUse + 1) * header->clusterSize);
    facts.start = startOfClone(*header, start, kVolumeStart);
    facts.volume = volumeFacts(facts.start);
    describe("ntfsclone image");
    return std::make_unique<CloneSource>(std::move(parts_), *header);
  }

  std::unique_ptr<ImageSource> openRaw(const std::string& mapPath) {
    ImageFacts& facts = parts_.facts;
    const auto start = parts_.content->start();
    facts.volume = volumeFacts(start);
    const std::string foreign = facts.volume ? "" : foreignFormat(start);
    if (!foreign.empty()) return fail("it is a " + foreign + ", which is not read; a raw image of the volume is");
    facts.start.assign(start.begin(), start.begin() + static_cast<ptrdiff_t>(std::min(start.size(), kVolumeStart)));
    facts.size = parts_.content->size();
    std::optional<BlockMap> map;
    if (!mapPath.empty()) {
      map = readBlockMap(mapPath, failure_);
      if (!map) return nullptr;
      if (facts.size && *facts.size != map->imageSize) {
        failure_ = {mapPath, "it is of another image than " + parts_.name + ", which has " +
                                 std::to_string(*facts.size) + " bytes and not " + std::to_string(map->imageSize)};
        return nullptr;
      }
      facts.blockMap = mapPath;
      facts.size = map->imageSize;
      facts.ranges = joined(map->ranges);
      facts.usedSize = 0;
      for (const ImageRange& range : map->ranges) *facts.usedSize += range.length;
      facts.isVerified = map->isVerified();
    }
    describe(facts.kind == ImageKind::backup ? "backup" : "raw image");
    return std::make_unique<RawSource>(std::move(parts_), std::move(map));
  }

  std::string path_;
  ImageFailure& failure_;
  SourceParts parts_;
  std::shared_ptr<SourceFile> file_;
};

}  // namespace

std::unique_ptr<ImageSource> openImageSource(const std::string& path, const ImageSourceOptions& options,
                                             ImageFailure& failure) try {
  return Opening(path, options, failure).open();
} catch (const std::exception& error) {
  failure = {path, error.what()};
  return nullptr;
}

}  // namespace vorlix
