// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/Backup.h>
#include <Vorlix/foundation/LittleEndian.h>

#include <Vorlix/platform/SystemError.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>

#include "BackupFiles.h"
#include "BlockMap.h"
#include "FramePipeline.h"
#include "Layout.h"
#include "Manifest.h"

namespace vorlix {
namespace {

constexpr uint64_t kBetweenSyncs = uint64_t{64} << 20;  // bytes, so that the last sync does not take long
constexpr size_t kFewPieces = 8;                        // of a block that are read one by one

// Reads a volume block by block.
class BlockSource {
 public:
  BlockSource(const BackupPlan& plan, const BackupProgressCallback& progress)
      : plan_(plan), progress_(progress), state_{0, plan.allocation.usedBytes()} {}

  void read(FrameSlot& slot) {
    const uint64_t start = slot.index * kFrameSize;
    slot.blockSize = static_cast<size_t>(std::min(kFrameSize, plan_.size - start));
    findRanges(slot, start);
    slot.isDone = slot.ranges.empty() && slot.blockSize == kFrameSize;
    if (!slot.isDone) readRanges(slot, start);
    for (const ByteRange& range : slot.ranges) state_.done += range.size;
    if (progress_ && !progress_(state_)) throw BackupError(plan_.request.volume, "cancelled", true);
  }

 private:
  void findRanges(FrameSlot& slot, uint64_t start) {
    const std::vector<ByteRange>& used = plan_.allocation.used;
    const uint64_t end = start + slot.blockSize;
    slot.ranges.clear();
    while (next_ < used.size() && used[next_].offset < end) {
      const uint64_t first = std::max(used[next_].offset, start);
      const uint64_t last = std::min(used[next_].end(), end);
      slot.ranges.push_back({first - start, last - first});
      if (used[next_].end() > end) break;
      ++next_;
    }
  }

  // One call for many small ranges is faster than one for each, but free sectors may be unreadable ones.
  void readRanges(FrameSlot& slot, uint64_t start) {
    const std::span<uint8_t> block(slot.block.data(), slot.blockSize);
    bool isWhole = false;
    if (slot.ranges.size() > kFewPieces) {
      const uint64_t first = slot.ranges.front().offset;
      const uint64_t count = slot.ranges.back().end() - first;
      isWhole = plan_.volume->readAt(block.data() + first, count, start + first) == static_cast<ssize_t>(count);
    }
    uint64_t end = 0;
    for (const ByteRange& range : slot.ranges) {
      std::fill(block.begin() + static_cast<std::ptrdiff_t>(end),
                block.begin() + static_cast<std::ptrdiff_t>(range.offset), uint8_t{0});
      if (!isWhole) readWhole(block.subspan(range.offset, range.size), start + range.offset);
      end = range.end();
    }
    std::fill(block.begin() + static_cast<std::ptrdiff_t>(end), block.end(), uint8_t{0});
  }

  void readWhole(std::span<uint8_t> bytes, uint64_t offset) {
    const ssize_t got = plan_.volume->readAt(bytes.data(), bytes.size(), offset);
    if (got == static_cast<ssize_t>(bytes.size())) return;
    const std::string reason = got < 0 ? SystemError{errno}.reason() : "the volume ends too early";
    throw BackupError(plan_.request.volume, "byte " + std::to_string(offset) + ": " + reason);
  }

  const BackupPlan& plan_;
  const BackupProgressCallback& progress_;
  BackupProgress state_;
  size_t next_ = 0;  // range that is not passed yet
};

// Writes frames and the ranges in them.
class FrameTarget {
 public:
  FrameTarget(const BackupPlan& plan, const NewFolder& folder)
      : image_(folder.pathOf(kImageFile), true),
        map_(folder.pathOf(kMapFile), plan.size, mappedBlocks(plan)),
        lastBlockSize_(static_cast<uint32_t>((plan.size - 1) % kFrameSize + 1)) {
    const std::vector<uint8_t> zeros(kFrameSize);
    const auto coder = newBackupCoder();
    emptyFrame_.resize(coder->largestFrame(zeros.size()));
    const auto size = coder->pack(zeros, emptyFrame_);
    if (!size) throw BackupError(kImageFile, "zeros cannot be packed");
    emptyFrame_.resize(*size);
  }

  void write(const FrameSlot& slot) {
    const std::span<const uint8_t> frame = slot.isDone ? std::span<const uint8_t>(emptyFrame_)
                                                       : std::span<const uint8_t>(slot.frame).first(slot.frameSize);
    image_.add(frame);
    sizes_.push_back(static_cast<uint32_t>(frame.size()));
    const uint64_t first = slot.index * (kFrameSize / kMapBlock);
    for (size_t i = 0; i < slot.ranges.size(); ++i) {
      const uint64_t last = (slot.ranges[i].end() + kMapBlock - 1) / kMapBlock - 1;
      map_.add(first + slot.ranges[i].offset / kMapBlock, first + last, slot.hashes[i]);
      ++ranges_;
    }
    if (image_.size() - synced_ < kBetweenSyncs) return;
    image_.sync();
    synced_ = image_.size();
  }

  void finish() {
    writeSeekTable();
    image_.sync();
    map_.finish();
  }

  uint64_t imageSize() const { return image_.size(); }
  uint64_t ranges() const { return ranges_; }
  std::string imageHash() { return image_.finishHash(); }

 private:
  static uint64_t mappedBlocks(const BackupPlan& plan) {
    return (plan.allocation.usedBytes() + kMapBlock - 1) / kMapBlock;
  }

  void writeSeekTable() {
    std::vector<uint8_t> table(kSeekHeader + sizes_.size() * kSeekEntry + kSeekFooter);
    putLittleEndian(table.data(), 4, kSkippableMagic);
    putLittleEndian(table.data() + 4, 4, table.size() - kSeekHeader);
    uint8_t* at = table.data() + kSeekHeader;
    for (size_t i = 0; i < sizes_.size(); ++i, at += kSeekEntry) {
      putLittleEndian(at, 4, sizes_[i]);
      putLittleEndian(at + 4, 4, i + 1 == sizes_.size() ? lastBlockSize_ : kFrameSize);
    }
    putLittleEndian(at, 4, sizes_.size());
    putLittleEndian(at + 5, 4, kSeekTableMagic);  // the byte before says that entries have no checksums
    image_.add(table);
  }

  NewFile image_;
  BlockMapWriter map_;
  std::vector<uint8_t> emptyFrame_;
  std::vector<uint32_t> sizes_;  // of the frames
  uint32_t lastBlockSize_;
  uint64_t ranges_ = 0;
  uint64_t synced_ = 0;
};

void pack(const std::string& volume, FrameSlot& slot, BlockCoder& coder, BlockHash& hash) {
  const std::span<const uint8_t> block(slot.block.data(), slot.blockSize);
  slot.hashes.clear();
  for (const ByteRange& range : slot.ranges) {
    hash.add(block.subspan(range.offset, range.size));
    slot.hashes.push_back(hash.finish());
  }
  const auto size = coder.pack(block, slot.frame);
  if (!size) throw BackupError(volume, "a block cannot be packed");
  slot.frameSize = *size;
}

ManifestFile savePart(const NewFolder& folder, const BackupPart& part) {
  NewFile file(folder.pathOf(part.file));
  file.add(part.bytes);
  file.sync();
  return {part.key, part.file, file.size(), file.finishHash()};
}

// The file's own digest is inside it; this one is of all of it.
ManifestFile mapEntry(const NewFolder& folder) {
  const OpenedFile file(folder.pathOf(kMapFile));
  return {"blockMap", kMapFile, file.size(), file.hash()};
}

void save(const BackupPlan& plan, const BackupProgressCallback& progress, BackupResult& result) {
  NewFolder folder(plan.request.folder);
  FrameTarget target(plan, folder);
  BlockSource source(plan, progress);
  FramePipeline::run(
      frameCountOf(plan.size), [&](FrameSlot& slot) { source.read(slot); },
      [&](FrameSlot& slot, BlockCoder& coder, BlockHash& hash) { pack(plan.request.volume, slot, coder, hash); },
      [&](FrameSlot& slot) { target.write(slot); });
  target.finish();
  std::vector<ManifestFile> files = {{"image", kImageFile, target.imageSize(), target.imageHash()}, mapEntry(folder)};
  for (const BackupPart& part : plan.parts) {
    if (part.missing.empty()) files.push_back(savePart(folder, part));
  }
  NewFile manifest(folder.pathOf(kManifestFile));
  manifest.add(manifestText(plan, files, target.ranges()));
  manifest.sync();
  folder.finish();
  result.packedSize = target.imageSize();
}

}  // namespace

std::optional<BackupFailure> runBackup(const BackupPlan& plan, const BackupProgressCallback& progress,
                                       BackupResult& result) {
  try {
    save(plan, progress, result);
  } catch (const BackupError& error) {
    return BackupFailure{error.subject, error.what(), error.isCancelled, error.isBackupThere};
  } catch (const std::exception& error) {  // no memory, or no thread
    return BackupFailure{plan.request.folder, error.what(), false};
  }
  return std::nullopt;
}

}  // namespace vorlix
