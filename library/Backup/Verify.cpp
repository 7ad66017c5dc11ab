// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/Backup.h>
#include <Vorlix/foundation/HexDigits.h>
#include <Vorlix/foundation/LittleEndian.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <exception>

#include "BackupFiles.h"
#include "FramePipeline.h"
#include "Layout.h"
#include "Manifest.h"
#include "foundation/Zeros.h"
#include "library/ImageSource/BlockMap.h"

namespace vorlix {
namespace {

constexpr uint64_t kLargestManifest = uint64_t{1} << 20;
constexpr size_t kMostFindings = 16;

class Verification {
 public:
  Verification(const std::string& folder, const BackupProgressCallback& progress, std::vector<BackupFinding>& findings)
      : folder_(withoutFinalSlashes(folder)), progress_(progress), findings_(findings) {}

  void run() {
    if (!readOwnManifest()) return;
    for (const ManifestFile& file : manifest_.files) {
      if (file.file != kImageFile) checkFile(file);
    }
    if (manifest_.find(kImageFile) == nullptr || manifest_.find(kMapFile) == nullptr) {
      find(kManifestFile, "names no image or no block map");
      return;
    }
    guarded(kImageFile, [this] { checkImage(*manifest_.find(kImageFile)); });
  }

 private:
  std::string pathOf(const std::string& file) const { return folder_ + "/" + file; }

  void find(const std::string& file, const std::string& text) {
    if (findings_.size() < kMostFindings) findings_.push_back({file, text});
  }

  // What a file throws is a finding about it, but for a cancellation.
  template <typename Function>
  void guarded(const std::string& file, Function function) {
    try {
      function();
    } catch (const BackupError& error) {
      if (error.isCancelled) throw;
      find(error.subject == pathOf(kMapFile) ? kMapFile : file, error.what());
    }
  }

  bool readOwnManifest() {
    if (platform().files->kindOf(folder_) != FileKind::folder) throw BackupError(folder_, "no such folder");
    if (!platform().files->kindOf(pathOf(kManifestFile))) {
      throw BackupError(folder_, std::string("is no backup: it has no ") + kManifestFile);
    }
    std::vector<uint8_t> bytes;
    guarded(kManifestFile, [&] { bytes = OpenedFile(pathOf(kManifestFile)).content(kLargestManifest); });
    if (!findings_.empty()) return false;
    const std::string reason = readManifest(bytes, manifest_);
    if (!reason.empty()) find(kManifestFile, reason);
    return reason.empty();
  }

  void checkFile(const ManifestFile& expected) {
    guarded(expected.file, [&] {
      if (expected.file.empty() || expected.file.find('/') != std::string::npos) {
        find(kManifestFile, "names a file outside the folder");
        return;
      }
      const OpenedFile file(pathOf(expected.file));
      compare(expected, file.size(), file.hash());
    });
  }

  void compare(const ManifestFile& expected, uint64_t size, const std::string& sha256) {
    if (size != expected.size) {
      find(expected.file, "has " + std::to_string(size) + " bytes instead of " + std::to_string(expected.size));
    } else if (sha256 != expected.sha256) {
      find(expected.file, "has another SHA-256 than the manifest says");
    }
  }

  // The sizes of the frames, from the table at the end of the image. Checked against the file and the volume's size.
  std::vector<uint32_t> frameSizes(const OpenedFile& image) {
    const uint64_t count = frameCountOf(manifest_.volumeSize);
    const uint64_t tableSize = kSeekHeader + count * kSeekEntry + kSeekFooter;
    if (count > image.size() / kSeekEntry || tableSize > image.size()) {
      throw BackupError(pathOf(kImageFile), "ends too early");
    }
    table_.resize(static_cast<size_t>(tableSize));
    image.read(image.size() - tableSize, table_);
    uint64_t sum = tableSize;
    std::vector<uint32_t> sizes;
    for (uint64_t i = 0; i < count; ++i) {
      sizes.push_back(littleEndian32(table_.data() + kSeekHeader + i * kSeekEntry));
      sum += sizes.back();
    }
    const bool isTable = littleEndian32(table_.data()) == kSkippableMagic &&
                         littleEndian32(table_.data() + 4) == tableSize - kSeekHeader &&
                         littleEndian32(table_.data() + tableSize - kSeekFooter) == count &&
                         littleEndian32(table_.data() + tableSize - 4) == kSeekTableMagic;
    if (!isTable || sum != image.size()) throw BackupError(pathOf(kImageFile), "has a damaged table of frames");
    return sizes;
  }

  void checkImage(const ManifestFile& expected) {
    const OpenedFile image(pathOf(kImageFile));
    if (image.size() != expected.size) {
      compare(expected, image.size(), "");
      return;
    }
    if (!readMap()) {
      compare(expected, image.size(), image.hash());
      return;
    }
    const std::vector<uint32_t> sizes = frameSizes(image);
    const auto hash = newBackupHash();
    uint64_t offset = 0;
    FramePipeline::run(
        sizes.size(),
        [&](FrameSlot& slot) {
          slot.frameSize = sizes[slot.index];
          if (slot.frameSize > slot.frame.size())
            throw BackupError(pathOf(kImageFile), "has a damaged table of frames");
          const std::span<uint8_t> frame(slot.frame.data(), slot.frameSize);
          image.read(offset, frame);
          hash->add(frame);
          offset += slot.frameSize;
          slot.blockSize = static_cast<size_t>(std::min(kFrameSize, manifest_.volumeSize - slot.index * kFrameSize));
          findRanges(slot);
          report(slot);
        },
        [](FrameSlot& slot, BlockCoder& coder, BlockHash& blockHash) { checkFrame(slot, coder, blockHash); },
        [&](FrameSlot& slot) {
          if (!slot.finding.empty()) find(kImageFile, slot.finding);
        });
    hash->add(table_);
    compare(expected, image.size(), hash->finish());
    if (ranges_ != map_.ranges.size() || ranges_ != manifest_.ranges || bytes_ != manifest_.savedBytes) {
      find(kMapFile, "has other ranges than the manifest counts");
    }
  }

  // @return false with a finding
  bool readMap() {
    ImageFailure failure;
    auto map = readBlockMap(pathOf(kMapFile), failure);
    if (!map) {
      find(kMapFile, failure.reason);
    } else if (map->hash != HashKind::sha256 || !map->isVerified()) {
      find(kMapFile, "has ranges without SHA-256");
    } else if (map->imageSize != manifest_.volumeSize) {
      find(kMapFile, "is of a volume of another size");
    } else {
      map_ = *std::move(map);
      return true;
    }
    return false;
  }

  // The map's ranges of a frame; each lies within one.
  void findRanges(FrameSlot& slot) {
    const uint64_t start = slot.index * kFrameSize;
    slot.ranges.clear();
    slot.hashes.clear();
    for (; ranges_ < map_.ranges.size() && map_.ranges[ranges_].offset < start + slot.blockSize; ++ranges_) {
      const ImageRange& range = map_.ranges[ranges_];
      if (range.offset < start || range.offset + range.length > start + slot.blockSize) {
        throw BackupError(pathOf(kMapFile), "has a range that is in two frames");
      }
      slot.ranges.push_back({range.offset - start, range.length});
      slot.hashes.push_back(hexText(map_.hashOf(ranges_)));
      bytes_ += range.length;
    }
  }

  void report(const FrameSlot& slot) {
    const uint64_t done = slot.index * kFrameSize + slot.blockSize;
    if (progress_ && !progress_({done, manifest_.volumeSize})) throw BackupError(folder_, "cancelled", true);
  }

  static void checkFrame(FrameSlot& slot, BlockCoder& coder, BlockHash& hash) {
    const std::span<uint8_t> block(slot.block.data(), slot.blockSize);
    const std::string name = "frame " + std::to_string(slot.index);
    if (!coder.unpack(std::span<const uint8_t>(slot.frame).first(slot.frameSize), block)) {
      slot.finding = name + " is damaged";
      return;
    }
    uint64_t end = 0;
    for (size_t i = 0; i < slot.ranges.size(); ++i) {
      const ByteRange& range = slot.ranges[i];
      hash.add(block.subspan(range.offset, range.size));
      if (hash.finish() != slot.hashes[i]) slot.finding = name + " has another content than the block map says";
      const bool isZeroBefore = areZeros(block.subspan(end, range.offset - end));
      if (!isZeroBefore) slot.finding = name + " has content outside the ranges of the block map";
      end = range.end();
    }
    if (!areZeros(block.subspan(end))) slot.finding = name + " has content outside the ranges of the block map";
  }

  std::string folder_;
  const BackupProgressCallback& progress_;
  std::vector<BackupFinding>& findings_;
  Manifest manifest_;
  std::vector<uint8_t> table_;
  BlockMap map_;
  size_t ranges_ = 0;   // that were looked at
  uint64_t bytes_ = 0;  // in them
};

}  // namespace

std::optional<BackupFailure> verifyBackup(const std::string& folder, const BackupProgressCallback& progress,
                                          std::vector<BackupFinding>& findings) {
  findings.clear();
  try {
    Verification(folder, progress, findings).run();
  } catch (const BackupError& error) {
    return BackupFailure{error.subject, error.what(), error.isCancelled};
  } catch (const std::exception& error) {  // no memory, or no thread
    return BackupFailure{folder, error.what(), false};
  }
  return std::nullopt;
}

}  // namespace vorlix
