// SPDX-License-Identifier: Apache-2.0
#include "VolumeCopy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace vorlix {
namespace {

constexpr size_t kPiece = kLongestRun;

// Parts of a volume; offsets count from its start.
using Extents = std::vector<Extent>;

void addRuns(const FatLayout& layout, const std::vector<FatRun>& runs, Extents& extents) {
  for (const FatRun& run : runs) extents.push_back({layout.offsetOf(run.first), run.count * layout.clusterSize});
}

// The parts in the order in which they are written.
struct Parts {
  Extents content;
  Extents folders;
  Extents tables;
};

Parts partsOf(const FatVolume& volume) {
  const FatLayout& layout = volume.layout();
  Parts parts;
  for (const FatEntry& entry : volume.entries()) {
    addRuns(layout, entry.runs, entry.isFolder ? parts.folders : parts.content);
  }
  addRuns(layout, volume.rootRuns(), parts.folders);
  parts.folders.push_back({layout.rootArea, layout.rootAreaEnd - layout.rootArea});
  for (uint32_t copy = layout.tableCount; copy > 0; --copy) {
    parts.tables.push_back({layout.tables + (copy - 1) * layout.tableSize, layout.tableSize});
  }
  parts.tables.push_back({0, layout.tables});
  return parts;
}

Refusal copyExtent(const FatSource& source, Extent extent, const std::string& path, int file) {
  std::vector<uint8_t> piece(kPiece);
  const uint64_t end = extent.offset + extent.size;
  for (uint64_t at = source.nextData(extent.offset); at < end; at = source.nextData(at)) {
    const auto count = static_cast<size_t>(std::min<uint64_t>(kPiece, end - at));
    if (!source.read(piece.data(), count, at)) return dissenterFor(errno, "reading the FAT file system");
    if (Refusal refusal = writePiece(file, path, piece.data(), count, at)) return refusal;
    at += count;
  }
  return std::nullopt;
}

// Adds the differences in an extent to a journal, in whole sectors.
class Difference {
 public:
  Difference(const OpenVolume& medium, const OpenVolume& copy, JournalWriter& writer, size_t device)
      : medium_(medium.descriptor, medium.window),
        copy_(copy.descriptor, copy.window),
        writer_(writer),
        device_(device) {}

  Refusal add(const Extents& extents, const std::string& reason) {
    for (const Extent& extent : extents) {
      if (Refusal refusal = addExtent(extent, reason)) return refusal;
    }
    return std::nullopt;
  }

 private:
  Refusal addExtent(Extent extent, const std::string& reason) {
    const uint64_t end = extent.offset + extent.size;
    for (uint64_t at = extent.offset; at < end;) {
      const uint64_t data = std::min(medium_.nextData(at), copy_.nextData(at));
      at += (std::min(data, end) - at) / kFatSector * kFatSector;
      if (data >= end) break;
      const auto count = static_cast<size_t>(std::min<uint64_t>(kPiece, end - at));
      if (!medium_.read(before_.data(), count, at) || !copy_.read(after_.data(), count, at)) {
        return dissenterFor(errno, "reading the FAT file system");
      }
      if (Refusal refusal = addPiece(at, count, reason)) return refusal;
      at += count;
    }
    return std::nullopt;
  }

  Refusal addPiece(uint64_t offset, size_t count, const std::string& reason) {
    for (size_t at = 0; at < count;) {
      if (isEqual(at, count)) {
        at += kFatSector;
        continue;
      }
      size_t end = at;
      while (end < count && !isEqual(end, count)) end = std::min(count, end + kFatSector);
      const std::span<const uint8_t> before(before_.data() + at, end - at);
      const std::span<const uint8_t> after(after_.data() + at, end - at);
      if (auto failure = writer_.add(device_, offset + at, before, after, reason)) return dissenterFor(*failure);
      at = end;
    }
    return std::nullopt;
  }

  bool isEqual(size_t at, size_t count) const {
    return std::memcmp(before_.data() + at, after_.data() + at, std::min(kFatSector, count - at)) == 0;
  }

  FatSource medium_;
  FatSource copy_;
  JournalWriter& writer_;
  size_t device_;
  std::vector<uint8_t> before_ = std::vector<uint8_t>(kPiece);
  std::vector<uint8_t> after_ = std::vector<uint8_t>(kPiece);
};

}  // namespace

Refusal copyUsedParts(const OpenVolume& from, const std::string& path, Descriptor& copy) {
  copy =
      Descriptor(aboveStandardStreams(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600)));
  const auto size = static_cast<off_t>(from.volume.layout().totalSize);
  if (!copy || ftruncate(copy.get(), size) != 0) return dissenterFor(errno, path);
  const FatSource source(from.descriptor, from.window);
  const Parts parts = partsOf(from.volume);
  for (const Extents* const extents : {&parts.tables, &parts.folders, &parts.content}) {
    for (const Extent& extent : *extents) {
      if (Refusal refusal = copyExtent(source, extent, path, copy.get())) return refusal;
    }
  }
  return std::nullopt;
}

Refusal writeJournal(const OpenVolume& medium, const OpenVolume& copy, const std::string& device,
                     const DeviceIdentity& identity, const std::string& name, std::unique_ptr<Journal>& journal) {
  std::unique_ptr<JournalWriter> writer;
  if (auto failure = JournalWriter::begin("files of " + name, {}, writer)) return dissenterFor(*failure);
  Difference difference(medium, copy, *writer, writer->addDevice(device, identity));
  const Parts parts = partsOf(copy.volume);
  if (Refusal refusal = difference.add(parts.content, "files of " + name)) return refusal;
  if (Refusal refusal = difference.add(parts.folders, "folders of " + name)) return refusal;
  if (Refusal refusal = difference.add(parts.tables, "allocation tables of " + name)) return refusal;
  if (auto failure = writer->commit(journal)) return dissenterFor(*failure);
  return std::nullopt;
}

}  // namespace vorlix
