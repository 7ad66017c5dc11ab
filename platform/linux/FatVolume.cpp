// SPDX-License-Identifier: Apache-2.0
#include "FatVolume.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>

#include <Vorlix/foundation/LittleEndian.h>
#include "FatNames.h"
#include "foundation/Zeros.h"

namespace vorlix {
namespace {

constexpr uint8_t kVolumeLabel = 0x08;
constexpr uint8_t kFolder = 0x10;
constexpr uint8_t kLongName = 0x0F;
constexpr uint8_t kLongNameMask = 0x3F;
constexpr size_t kLongestPath = 4096;
constexpr size_t kMostPathBytes = size_t{256} * 1024 * 1024;
constexpr size_t kPage = 4096;

bool isDotEntry(const uint8_t* entry) {
  return std::memcmp(entry, ".          ", 11) == 0 || std::memcmp(entry, "..         ", 11) == 0;
}

}  // namespace

uint64_t placeIn(const FatLayout& layout, const std::vector<FatRun>& runs, uint64_t offset) {
  for (const FatRun& run : runs) {
    const uint64_t length = run.count * layout.clusterSize;
    if (offset < length) return layout.offsetOf(run.first) + offset;
    offset -= length;
  }
  return 0;
}

// Reads and checks a volume, once.
class FatWalk {
 public:
  FatWalk(const FatSource& source, FatVolume& volume)
      : source_(source), volume_(volume), layout_(volume.layout_), seen_(volume.layout_.clusters) {}

  Refusal run() {
    if (!addArea(0, layout_.tables)) return unread();
    volume_.table_.addTo(volume_.digest_);
    if (!readRoot()) return failed();
    for (size_t number = 0; number < volume_.entries_.size(); ++number) {
      if (volume_.entries_[number].isFolder && !readFolder(number)) return failed();
    }
    if (volume_.totalSize_ > uint64_t{layout_.clusters} * layout_.clusterSize) {
      damage("its files claim more than it holds");
      return failed();
    }
    for (FatEntry& entry : volume_.entries_) {
      if (!entry.isFolder && !followFile(entry)) return failed();
    }
    return std::nullopt;
  }

 private:
  bool damage(const std::string& how) {
    damage_ = how;
    return false;
  }

  Refusal unread() const { return dissenterFor(errno, "reading the FAT file system"); }

  Refusal failed() const {
    if (damage_.empty()) return unread();
    return Dissenter{kDissentUnsupported, "the FAT file system is damaged: " + damage_};
  }

  void addPages(uint64_t at, const uint8_t* bytes, size_t count) {
    for (size_t done = 0; done < count; done += kPage) {
      const size_t size = std::min(kPage, count - done);
      const uint8_t* const page = bytes + done;
      if (areZeros({page, size})) continue;
      volume_.digest_.addWord(at + done);
      volume_.digest_.add(page, size);
    }
  }

  bool addArea(uint64_t from, uint64_t to) {
    std::vector<uint8_t> piece(kFatPiece);
    for (uint64_t at = from; at < to;) {
      const uint64_t data = source_.nextData(at);
      if (data >= to) break;
      at = std::max(at, from + (data - from) / kPage * kPage);
      const auto count = static_cast<size_t>(std::min<uint64_t>(kFatPiece, to - at));
      if (!source_.read(piece.data(), count, at)) return false;
      addPages(at, piece.data(), count);
      at += count;
    }
    return true;
  }

  bool readRoot() {
    std::vector<uint8_t> bytes;
    if (layout_.width == FatWidth::bits32) {
      if (!layout_.hasCluster(layout_.rootCluster)) return damage("its root folder has no valid cluster");
      return readFolderBytes(layout_.rootCluster, volume_.rootRuns_, bytes) &&
             takeEntries("", bytes, volume_.rootRuns_);
    }
    bytes.resize(static_cast<size_t>(layout_.rootAreaEnd - layout_.rootArea));
    if (!source_.read(bytes.data(), bytes.size(), layout_.rootArea)) return false;
    addPages(layout_.rootArea, bytes.data(), bytes.size());
    return takeEntries("", bytes, {});
  }

  bool readFolder(size_t number) {
    // Not a reference, because the items of the folder are added to the same list.
    const uint32_t first = volume_.entries_[number].firstCluster;
    if (!layout_.hasCluster(first)) return damage("a folder in it has no valid cluster");
    std::vector<FatRun> runs;
    std::vector<uint8_t> bytes;
    if (!readFolderBytes(first, runs, bytes)) return false;
    volume_.entries_[number].runs = runs;
    const std::string path = volume_.entries_[number].path;
    return takeEntries(path, bytes, runs);
  }

  bool readFolderBytes(uint32_t first, std::vector<FatRun>& runs, std::vector<uint8_t>& bytes) {
    const uint64_t most = std::max<uint64_t>(1, kLargestFatFolder / layout_.clusterSize);
    if (!follow(first, most, runs, "a folder in it is reached twice", "a folder in it is too large")) return false;
    for (const FatRun& run : runs) {
      const size_t before = bytes.size();
      bytes.resize(before + static_cast<size_t>(run.count * layout_.clusterSize));
      if (!source_.read(bytes.data() + before, bytes.size() - before, layout_.offsetOf(run.first))) return false;
      addPages(layout_.offsetOf(run.first), bytes.data() + before, bytes.size() - before);
    }
    return true;
  }

  // Follows the chain that starts with `first`, of at most `most` clusters.
  bool follow(uint32_t first, uint64_t most, std::vector<FatRun>& runs, const std::string& twice,
              const std::string& tooLong) {
    uint64_t count = 0;
    for (uint32_t cluster = first;;) {
      if (seen_[cluster - kFirstCluster]) return damage(twice);
      seen_[cluster - kFirstCluster] = true;
      ++volume_.reached_;
      if (++count > most) return damage(tooLong);
      if (!runs.empty() && runs.back().first + runs.back().count == cluster) {
        ++runs.back().count;
      } else {
        runs.push_back({cluster, 1});
      }
      const uint32_t next = volume_.table_.next(cluster);
      if (volume_.table_.isEnd(next)) return true;
      if (!layout_.hasCluster(next)) return damage("a chain in it has no end");
      cluster = next;
    }
  }

  bool followFile(FatEntry& entry) {
    const uint64_t wanted = volume_.clustersFor(entry.size);
    const std::string wrongLength = "the size of " + entry.path + " does not match its clusters";
    if (entry.firstCluster == 0) return wanted == 0 || damage(wrongLength);
    if (!layout_.hasCluster(entry.firstCluster)) return damage(entry.path + " has no valid cluster");
    const std::string twice = "a cluster of " + entry.path + " is used twice";
    if (!follow(entry.firstCluster, wanted, entry.runs, twice, wrongLength)) return false;
    uint64_t found = 0;
    for (const FatRun& run : entry.runs) found += run.count;
    return found == wanted || damage(wrongLength);
  }

  // `runs` are the folder's clusters; empty for a root folder outside the clusters.
  bool takeEntries(const std::string& folder, const std::vector<uint8_t>& bytes, const std::vector<FatRun>& runs) {
    std::set<std::string> names;
    LongNameReader longName;
    for (size_t at = 0; at + kFatEntrySize <= bytes.size(); at += kFatEntrySize) {
      const uint8_t* const entry = bytes.data() + at;
      if (entry[0] == kFatEndOfFolder) break;
      if (entry[0] != kFatDeleted && (entry[11] & kLongNameMask) == kLongName) {
        longName.take(entry);
        continue;
      }
      if (entry[0] == kFatDeleted || (entry[11] & kVolumeLabel) != 0 || isDotEntry(entry)) {
        longName.reset();
        continue;
      }
      std::string name;
      if (!nameOf(entry, longName, name)) return damage("it has a name that is not allowed in " + folder + "/");
      if (!names.insert(name).second) return damage("it has the name " + folder + "/" + name + " twice");
      if (!addEntry(folder + "/" + name, entry)) return false;
      volume_.entries_.back().place = runs.empty() ? layout_.rootArea + at : placeIn(layout_, runs, at);
    }
    return true;
  }

  static bool nameOf(const uint8_t* entry, LongNameReader& longName, std::string& name) {
    const LongNameReader::Outcome outcome = longName.finish(entry, name);
    if (outcome == LongNameReader::Outcome::found) return true;
    const std::optional<std::string> shortName = shortNameIn(entry);
    if (outcome == LongNameReader::Outcome::invalid || !shortName) return false;
    name = *shortName;
    return true;
  }

  bool addEntry(const std::string& path, const uint8_t* bytes) {
    pathBytes_ += path.size();
    if (path.size() > kLongestPath) return damage("its folders are nested too deeply");
    if (pathBytes_ > kMostPathBytes) return damage("it has too many files");
    FatEntry& entry = volume_.entries_.emplace_back();
    entry.path = path;
    entry.attributes = bytes[11];
    entry.isFolder = (entry.attributes & kFolder) != 0;
    entry.time = littleEndian16(bytes + 22);
    entry.date = littleEndian16(bytes + 24);
    entry.firstCluster = littleEndian16(bytes + 26);
    if (layout_.width == FatWidth::bits32) entry.firstCluster |= uint32_t{littleEndian16(bytes + 20)} << 16;
    if (entry.isFolder) return true;
    entry.size = littleEndian32(bytes + 28);
    volume_.totalSize_ += entry.size;
    return true;
  }

  const FatSource& source_;
  FatVolume& volume_;
  const FatLayout& layout_;
  std::vector<bool> seen_;
  size_t pathBytes_ = 0;
  std::string damage_;
};

int64_t modificationTime(const FatEntry& entry) {
  tm parts = {};
  parts.tm_year = 80 + (entry.date >> 9);
  parts.tm_mon = ((entry.date >> 5) & 0x0F) - 1;
  parts.tm_mday = entry.date & 0x1F;
  parts.tm_hour = entry.time >> 11;
  parts.tm_min = (entry.time >> 5) & 0x3F;
  parts.tm_sec = (entry.time & 0x1F) * 2;
  parts.tm_isdst = -1;
  return mktime(&parts);
}

Refusal FatVolume::read(const FatSource& source) {
  if (Refusal refusal = readFatLayout(source, layout_)) return refusal;
  const auto identity = readFatIdentity(source);
  if (!identity) return dissenterFor(errno, "reading the boot sector");
  identity_ = *identity;
  if (Refusal refusal = table_.read(source, layout_, FatTable::Copies::allEqual)) return refusal;
  return FatWalk(source, *this).run();
}

const FatEntry* FatVolume::find(const std::string& path) const {
  const std::string folded = foldedFatName(path);
  const FatEntry* found = nullptr;
  for (const FatEntry& entry : entries_) {
    if (entry.path == path) return &entry;
    if (found == nullptr && foldedFatName(entry.path) == folded) found = &entry;
  }
  return found;
}

Refusal FatVolume::readFile(const FatSource& source, const FatEntry& entry, const TakePiece& take) const {
  std::vector<uint8_t> piece(kFatPiece);
  uint64_t start = 0;  // offset of the run in the file
  for (const FatRun& run : entry.runs) {
    const uint64_t place = layout_.offsetOf(run.first);
    const uint64_t length = std::min<uint64_t>(run.count * layout_.clusterSize, entry.size - start);
    for (uint64_t at = 0; at < length;) {
      at = std::min(length, source.nextData(place + at) - place);
      const auto count = static_cast<size_t>(std::min<uint64_t>(kFatPiece, length - at));
      if (count == 0) break;
      if (!source.read(piece.data(), count, place + at)) return dissenterFor(errno, "reading " + entry.path);
      if (Refusal refusal = take(start + at, piece.data(), count)) return refusal;
      at += count;
    }
    start += length;
  }
  return std::nullopt;
}

}  // namespace vorlix
