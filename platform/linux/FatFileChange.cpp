// SPDX-License-Identifier: Apache-2.0
#include "FatFileChange.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include <Vorlix/foundation/LittleEndian.h>
#include "FatNames.h"
#include "foundation/Zeros.h"

namespace vorlix {
namespace {

constexpr uint8_t kArchive = 0x20;
constexpr size_t kExtension = 3;

using Record = std::array<uint8_t, kFatEntrySize>;
using ShortName = std::array<uint8_t, kFatBase + kExtension>;

struct FatTime {
  uint16_t date = 0;
  uint16_t time = 0;
};

// Times outside the range of FAT become its first or its last time.
FatTime fatTimeOf(std::time_t now) {
  tm parts = {};
  if (localtime_r(&now, &parts) == nullptr || parts.tm_year < 80) return {1U << 5 | 1U, 0};
  if (parts.tm_year > 207) return {127U << 9 | 12U << 5 | 31U, 23U << 11 | 59U << 5 | 29U};
  const int date = (parts.tm_year - 80) << 9 | (parts.tm_mon + 1) << 5 | parts.tm_mday;
  const int time = parts.tm_hour << 11 | parts.tm_min << 5 | std::min(parts.tm_sec, 59) / 2;
  return {static_cast<uint16_t>(date), static_cast<uint16_t>(time)};
}

bool isPlainPart(const std::string& part, size_t longest) {
  const auto isPlain = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'; };
  return !part.empty() && part.size() <= longest && std::all_of(part.begin(), part.end(), isPlain);
}

ShortName shortNameOf(const std::string& name) {
  ShortName bytes;
  bytes.fill(' ');
  const size_t dot = std::min(name.find('.'), name.size());
  std::copy_n(name.begin(), dot, bytes.begin());
  if (dot < name.size())
    std::copy(name.begin() + static_cast<std::ptrdiff_t>(dot) + 1, name.end(), bytes.begin() + kFatBase);
  return bytes;
}

// Collects changed sectors of a volume.
class Patching {
 public:
  explicit Patching(const FatSource& source) : source_(source) {}

  bool read(uint8_t* to, size_t count, uint64_t offset, const FatSectors& sectors) const {
    return FatSource(source_, sectors).read(to, count, offset);
  }

  bool write(FatSectors& sectors, uint64_t offset, const uint8_t* bytes, size_t count) const {
    for (size_t done = 0; done < count;) {
      const uint64_t at = (offset + done) / kFatSector * kFatSector;
      const auto [sector, isNew] = sectors.try_emplace(at);
      if (isNew) {
        sector->second.resize(kFatSector);
        if (!source_.read(sector->second.data(), kFatSector, at)) return false;
      }
      const auto from = static_cast<size_t>(offset + done - at);
      const size_t length = std::min(kFatSector - from, count - done);
      std::copy_n(bytes + done, length, sector->second.data() + from);
      done += length;
    }
    return true;
  }

 private:
  const FatSource& source_;
};

class Planning {
 public:
  Planning(const FatSource& source, const FatVolume& volume, FatFileChange& change)
      : source_(source), patching_(source), volume_(volume), layout_(volume.layout()), change_(change) {}

  Refusal replace(const FatEntry& entry, std::span<const uint8_t> bytes, FatTime now) {
    if (Refusal refusal = allocate(volume_.clustersFor(bytes.size()), entry.runs)) return refusal;
    Record record;
    if (!source_.read(record.data(), record.size(), entry.place)) return unread();
    fill(record, bytes.size(), now);
    for (const FatRun& run : entry.runs) {
      for (uint32_t cluster = run.first; cluster < run.first + run.count; ++cluster) links_[cluster] = 0;
    }
    return putFile(entry.place, record, bytes);
  }

  Refusal make(const FatEntry& folder, const std::string& name, std::span<const uint8_t> bytes, FatTime now) {
    const ShortName shortName = shortNameOf(name);
    uint64_t place = 0;
    if (Refusal refusal = findPlace(folder, shortName, name, place)) return refusal;
    const bool mustGrow = place == 0;
    const uint64_t own = volume_.clustersFor(bytes.size());
    if (Refusal refusal = allocate(own + (mustGrow ? 1 : 0), {})) return refusal;
    if (mustGrow) {
      const uint32_t added = clusters_.back();
      clusters_.pop_back();
      if (Refusal refusal = growBy(folder, added)) return refusal;
      place = layout_.offsetOf(added);
    }
    Record record = {};
    std::copy(shortName.begin(), shortName.end(), record.begin());
    putLittleEndian(record.data() + 14, 2, now.time);
    putLittleEndian(record.data() + 16, 2, now.date);
    fill(record, bytes.size(), now);
    return putFile(place, record, bytes);
  }

 private:
  static Refusal unread() { return dissenterFor(errno, "reading the FAT file system"); }

  // Picks free clusters, in one run if a run is long enough; if there are too few, also those of the old content.
  Refusal allocate(uint64_t count, const std::vector<FatRun>& old) {
    std::vector<uint32_t> free;
    size_t run = 0;  // number of consecutive clusters at the end of `free`
    for (uint32_t i = 0; i < layout_.clusters && run < count; ++i) {
      const uint32_t cluster = kFirstCluster + i;
      if (volume_.table().next(cluster) != 0) continue;
      run = !free.empty() && free.back() + 1 == cluster ? run + 1 : 1;
      free.push_back(cluster);
    }
    if (run >= count) {
      clusters_.assign(free.end() - static_cast<std::ptrdiff_t>(count), free.end());
      return std::nullopt;
    }
    for (const FatRun& part : old) {
      for (uint32_t cluster = part.first; cluster < part.first + part.count && free.size() < count; ++cluster) {
        free.push_back(cluster);
      }
    }
    if (free.size() < count) return Dissenter{kDissentNoResources, "no room is left on the volume"};
    free.resize(static_cast<size_t>(count));
    clusters_ = std::move(free);
    return std::nullopt;
  }

  void fill(Record& record, size_t size, FatTime now) const {
    const uint32_t first = clusters_.empty() ? 0 : clusters_.front();
    record[11] |= kArchive;
    putLittleEndian(record.data() + 18, 2, now.date);
    if (layout_.width == FatWidth::bits32) putLittleEndian(record.data() + 20, 2, first >> 16);
    putLittleEndian(record.data() + 22, 2, now.time);
    putLittleEndian(record.data() + 24, 2, now.date);
    putLittleEndian(record.data() + 26, 2, first);
    putLittleEndian(record.data() + 28, 4, size);
  }

  Refusal putFile(uint64_t place, const Record& record, std::span<const uint8_t> bytes) {
    if (!putContent(bytes) || !patching_.write(change_.folders, place, record.data(), record.size())) return unread();
    for (size_t i = 0; i < clusters_.size(); ++i) {
      links_[clusters_[i]] = i + 1 < clusters_.size() ? clusters_[i + 1] : volume_.table().endMark();
    }
    if (!putLinks() || !putFreeCount()) return unread();
    return std::nullopt;
  }

  // The rest of the last cluster becomes zero.
  bool putContent(std::span<const uint8_t> bytes) {
    const auto size = static_cast<size_t>(layout_.clusterSize);
    std::vector<uint8_t> piece;
    for (size_t i = 0; i < clusters_.size(); ++i) {
      const auto part = bytes.subspan(i * size, std::min(size, bytes.size() - i * size));
      piece.assign(part.begin(), part.end());
      piece.resize(size);
      if (!patching_.write(change_.content, layout_.offsetOf(clusters_[i]), piece.data(), size)) return false;
    }
    return true;
  }

  // Finds the first unused record of the folder; 0 if it has none.
  Refusal findPlace(const FatEntry& folder, const ShortName& name, const std::string& text, uint64_t& place) {
    uint64_t size = 0;
    for (const FatRun& run : folder.runs) size += run.count * layout_.clusterSize;
    bool hasEnded = false;
    for (uint64_t at = 0; at < size && !hasEnded; at += kFatEntrySize) {
      const uint64_t here = placeIn(layout_, folder.runs, at);
      Record record;
      if (!source_.read(record.data(), record.size(), here)) return unread();
      hasEnded = record[0] == kFatEndOfFolder;
      if (hasEnded || record[0] == kFatDeleted) {
        if (place == 0) place = here;
        // Records after the end have no meaning and must not get one, so the end moves to the next record.
        if (hasEnded && place == here && at + kFatEntrySize < size &&
            !endAt(placeIn(layout_, folder.runs, at + kFatEntrySize))) {
          return unread();
        }
      } else if (std::equal(name.begin(), name.end(), record.begin())) {
        if (Refusal refusal = checkAlias(here, text)) return refusal;
      }
    }
    if (place != 0 || size < kLargestFatFolder) return std::nullopt;
    return Dissenter{kDissentNoResources, "no room is left in " + folder.path};
  }

  bool endAt(uint64_t place) {
    uint8_t first = 0;
    if (!source_.read(&first, 1, place)) return false;
    const Record end = {};
    return first == kFatEndOfFolder || patching_.write(change_.folders, place, end.data(), end.size());
  }

  // A label, or a part of a long name, may have the same bytes; only files and folders count.
  Refusal checkAlias(uint64_t place, const std::string& text) const {
    for (const FatEntry& entry : volume_.entries()) {
      if (entry.place != place) continue;
      return Dissenter{kDissentUnsupported, text + " is the short name of " + entry.path + " on the volume"};
    }
    return std::nullopt;
  }

  Refusal growBy(const FatEntry& folder, uint32_t added) {
    const FatRun& last = folder.runs.back();
    links_[last.first + last.count - 1] = added;
    links_[added] = volume_.table().endMark();
    const std::vector<uint8_t> zeros(static_cast<size_t>(layout_.clusterSize));
    if (!patching_.write(change_.folders, layout_.offsetOf(added), zeros.data(), zeros.size())) return unread();
    return std::nullopt;
  }

  // Changes every copy of the table.
  bool putLinks() {
    for (const auto& [cluster, next] : links_) {
      const FatTable::Location location = volume_.table().locationOf(cluster);
      for (uint32_t copy = 0; copy < layout_.tableCount; ++copy) {
        const uint64_t place = layout_.tables + copy * layout_.tableSize + location.offset;
        std::array<uint8_t, 4> now = {};
        if (!patching_.read(now.data(), location.count, place, change_.tables)) return false;
        const auto bytes = volume_.table().bytesWith(cluster, next, now);
        if (!patching_.write(change_.tables, place, bytes.data(), location.count)) return false;
      }
    }
    return true;
  }

  // FAT32 stores the number of free clusters outside the tables, as a hint.
  bool putFreeCount() {
    if (layout_.width != FatWidth::bits32) return true;
    std::array<uint8_t, kFatSector> boot = {};
    std::array<uint8_t, kFatSector> hints = {};
    if (!source_.read(boot.data(), boot.size(), 0)) return false;
    const uint64_t place = littleEndian(boot, 48, 2) * littleEndian(boot, 11, 2);
    if (place == 0 || place + kFatSector > layout_.tables) return true;
    if (!source_.read(hints.data(), hints.size(), place)) return false;
    const bool isThere = littleEndian(hints, 0, 4) == 0x41615252 && littleEndian(hints, 484, 4) == 0x61417272;
    if (!isThere || littleEndian(hints, 488, 4) > layout_.clusters) return true;
    uint64_t free = volume_.freeClusters();
    for (const auto& [cluster, next] : links_) {
      free += volume_.table().next(cluster) != 0 ? 1U : 0U;
      free -= next != 0 ? 1U : 0U;
    }
    std::array<uint8_t, 4> count = {};
    putLittleEndian(count.data(), count.size(), free);
    return patching_.write(change_.tables, place + 488, count.data(), count.size());
  }

  const FatSource& source_;
  Patching patching_;
  const FatVolume& volume_;
  const FatLayout& layout_;
  FatFileChange& change_;
  std::vector<uint32_t> clusters_;      // of the new content, in order
  std::map<uint32_t, uint32_t> links_;  // the new values in the table, by cluster
};

bool isSame(const FatEntry& left, const FatEntry& right) {
  const bool hasSameClusters = std::equal(
      left.runs.begin(), left.runs.end(), right.runs.begin(), right.runs.end(),
      [](const FatRun& one, const FatRun& other) { return one.first == other.first && one.count == other.count; });
  return left.path == right.path && left.isFolder == right.isFolder && left.attributes == right.attributes &&
         left.size == right.size && left.date == right.date && left.time == right.time && left.place == right.place &&
         left.firstCluster == right.firstCluster && hasSameClusters;
}

}  // namespace

FatSectors FatFileChange::all() const {
  FatSectors sectors = content;
  sectors.insert(folders.begin(), folders.end());
  sectors.insert(tables.begin(), tables.end());
  return sectors;
}

bool isPlainFatName(const std::string& name) {
  const size_t dot = name.find('.');
  if (dot == std::string::npos) return isPlainPart(name, kFatBase);
  return isPlainPart(name.substr(0, dot), kFatBase) && isPlainPart(name.substr(dot + 1), kExtension);
}

Refusal replaceFatFile(const FatSource& source, const FatVolume& volume, const FatEntry& entry,
                       std::span<const uint8_t> bytes, std::time_t now, FatFileChange& change) {
  return Planning(source, volume, change).replace(entry, bytes, fatTimeOf(now));
}

Refusal makeFatFile(const FatSource& source, const FatVolume& volume, const FatEntry& folder, const std::string& name,
                    std::span<const uint8_t> bytes, std::time_t now, FatFileChange& change) {
  if (!isPlainFatName(name)) return Dissenter{kDissentUnsupported, name + " is not a plain name"};
  return Planning(source, volume, change).make(folder, name, bytes, fatTimeOf(now));
}

Refusal checkFatFileChange(const FatSource& changed, const FatVolume& before, const std::string& path,
                           std::span<const uint8_t> bytes) {
  const Dissenter damaged = {kDissentError, "the change to " + path + " would damage the volume"};
  FatVolume after;
  if (Refusal refusal = after.read(changed)) {
    refusal->text = damaged.text + ": " + refusal->text;
    return refusal;
  }
  if (after.identity() != before.identity() || after.lostClusters() != before.lostClusters()) return damaged;
  std::map<std::string, const FatEntry*> there;
  for (const FatEntry& entry : after.entries()) there[entry.path] = &entry;
  const FatEntry* const file = there[path];
  there.erase(path);
  for (const FatEntry& entry : before.entries()) {
    if (entry.path == path) continue;
    const auto same = there.find(entry.path);
    if (same == there.end()) return damaged;
    // A folder may have grown by a cluster at its end.
    FatEntry expected = entry;
    if (entry.isFolder && path.starts_with(entry.path + "/")) expected.runs = same->second->runs;
    if (!isSame(expected, *same->second)) return damaged;
    there.erase(same);
  }
  bool isEqual = false;
  if (file == nullptr || file->isFolder || !there.empty()) return damaged;
  if (Refusal refusal = compareFatFile(changed, after, *file, bytes, isEqual)) return refusal;
  return isEqual ? std::nullopt : Refusal(damaged);
}

Refusal compareFatFile(const FatSource& source, const FatVolume& volume, const FatEntry& entry,
                       std::span<const uint8_t> bytes, bool& isEqual) {
  isEqual = entry.size == bytes.size();
  if (!isEqual) return std::nullopt;
  size_t done = 0;
  const auto isZero = [&](size_t end) { return areZeros(bytes.subspan(done, end - done)); };
  const Refusal unread =
      volume.readFile(source, entry, [&](uint64_t offset, const uint8_t* piece, size_t count) -> Refusal {
        isEqual =
            isEqual && isZero(static_cast<size_t>(offset)) && std::memcmp(bytes.data() + offset, piece, count) == 0;
        done = static_cast<size_t>(offset) + count;
        return std::nullopt;
      });
  if (unread) return unread;
  isEqual = isEqual && isZero(bytes.size());
  return std::nullopt;
}

}  // namespace vorlix
