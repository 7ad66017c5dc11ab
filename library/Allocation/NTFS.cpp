// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "NTFSRecords.h"

namespace vorlix {
namespace {

// Numbers of records.
constexpr uint64_t kLogFileRecord = 2;
constexpr uint64_t kVolumeRecord = 3;
constexpr uint64_t kRootRecord = 5;
constexpr uint64_t kBitmapRecord = 6;

// Of the volume's flags: dirty, a journal to be resized, an upgrade to be made, a change journal being deleted, a check
// under way. Whatever works on the volume next will write first.
constexpr uint16_t kUnsettled = 0x0001 | 0x0002 | 0x0004 | 0x0010 | 0x4000;

constexpr size_t kRestartPage = 4096;
constexpr uint64_t kNoClient = 0xFFFF;
constexpr uint16_t kJournalIsClean = 0x0002;

constexpr uint64_t kLargestFolder = uint64_t{16} << 20;  // bytes of the root folder that are searched
constexpr uint16_t kHasSubnode = 0x01;
constexpr uint16_t kLastEntry = 0x02;
constexpr uint64_t kReferenceMask = 0xFFFFFFFFFFFF;
const std::u16string kFolderIndex = u"$I30";
constexpr std::u16string_view kHibernation = u"hiberfil.sys";

NTFSGeometry ntfsGeometryOf(std::span<const uint8_t> boot, uint64_t volumeSize) {
  NTFSGeometry ntfs;
  ntfs.sector = littleEndian(boot, 11, 2);
  const unsigned perCluster = boot[13];
  const uint64_t sectors = littleEndian(boot, 40, 8);
  const unsigned perRecord = boot[64];
  const bool isSane = ntfs.sector >= 256 && ntfs.sector <= 4096 && isPowerOfTwo(ntfs.sector) &&
                      (perCluster >= 0xF4 || isPowerOfTwo(perCluster)) && sectors != 0;
  if (!isSane) throw AllocationDoubt("its NTFS boot sector is damaged");
  const uint64_t sectorsPerCluster = perCluster >= 0xF4 ? uint64_t{1} << (256 - perCluster) : perCluster;
  ntfs.clusterSize = ntfs.sector * sectorsPerCluster;
  if (sectors > volumeSize / ntfs.sector) throw CutOff("NTFS");
  ntfs.clusters = sectors / sectorsPerCluster;
  ntfs.mft = littleEndian(boot, 48, 8);
  ntfs.mirror = littleEndian(boot, 56, 8);
  ntfs.recordSize = perRecord < 0x80       ? perRecord * ntfs.clusterSize
                    : 256 - perRecord < 32 ? uint64_t{1} << (256 - perRecord)
                                           : 0;
  const bool fits = ntfs.clusterSize <= (uint64_t{2} << 20) && ntfs.mft < ntfs.clusters &&
                    ntfs.mirror < ntfs.clusters && ntfs.recordSize >= 512 && ntfs.recordSize <= 65536 &&
                    isPowerOfTwo(ntfs.recordSize);
  if (!fits) throw AllocationDoubt("its NTFS boot sector is damaged");
  return ntfs;
}

bool isHibernationName(std::span<const uint8_t> units, size_t count) {
  if (count != kHibernation.size()) return false;
  for (size_t i = 0; i < count; ++i) {
    char16_t unit = static_cast<char16_t>(littleEndian(units.data() + i * 2, 2));
    if (unit >= u'A' && unit <= u'Z') unit = static_cast<char16_t>(unit + (u'a' - u'A'));
    if (unit != kHibernation[i]) return false;
  }
  return true;
}

// The record of a hibernation file among the entries of a folder's index; absent where there is none.
std::optional<uint64_t> hibernationIn(std::span<const uint8_t> entries) {
  constexpr size_t kSmallestEntry = 16;
  constexpr size_t kNameField = 16 + 64;  // of the entry: the file name's length, its namespace and its units
  while (entries.size() >= kSmallestEntry) {
    const size_t size = littleEndian16(entries.data() + 8);
    const uint16_t flags = littleEndian16(entries.data() + 12);
    if ((flags & kLastEntry) != 0) return std::nullopt;
    if (size < kSmallestEntry || size > entries.size()) break;
    if (size >= kNameField + 2) {
      const size_t length = entries[kNameField];
      const bool fits = kNameField + 2 + length * 2 <= size;
      if (fits && isHibernationName(entries.subspan(kNameField + 2), length)) {
        return littleEndian(entries, 0, 8) & kReferenceMask;
      }
    }
    entries = entries.subspan(size);
  }
  throw AllocationDoubt("its root folder is damaged");
}

// The entries behind an index header: where they begin and end, from the header's start.
std::span<const uint8_t> entriesOf(std::span<const uint8_t> header) {
  if (header.size() < 16) throw AllocationDoubt("its root folder is damaged");
  const uint64_t start = littleEndian(header, 0, 4);
  const uint64_t end = littleEndian(header, 4, 4);
  if (start > end || end > header.size()) throw AllocationDoubt("its root folder is damaged");
  return header.subspan(start, end - start);
}

class NTFSReader {
 public:
  NTFSReader(const VolumeBytes& volume, const NTFSGeometry& ntfs)
      : volume_(volume), ntfs_(ntfs), mft_(tableAttribute()) {}

  std::vector<ByteRange> read() {
    checkFlags();
    checkJournal();
    checkHibernation();
    return readBitmap();
  }

 private:
  // The table's own record, whose first extent has the records that every volume has.
  NTFSAttribute tableAttribute() const {
    const NTFSRecord record(volume_.read(ntfs_.mft * ntfs_.clusterSize, static_cast<size_t>(ntfs_.recordSize)), ntfs_);
    const NTFSAttribute* const data = record.find(NTFSRecord::kData);
    if (data == nullptr || data->isResident || !data->isPlain() || data->runs.empty() ||
        data->runs.front().cluster != ntfs_.mft) {
      throw AllocationDoubt("its master file table is damaged");
    }
    return *data;
  }

  NTFSRecord record(uint64_t number) const {
    std::vector<uint8_t> bytes(static_cast<size_t>(ntfs_.recordSize));
    const uint64_t last = UINT64_MAX / ntfs_.recordSize - 1;
    if (number > last) throw AllocationDoubt("its master file table is damaged");
    readContent(volume_, ntfs_, mft_, number * ntfs_.recordSize, bytes);
    return NTFSRecord(std::move(bytes), ntfs_);
  }

  void checkFlags() const {
    const NTFSRecord volume = record(kVolumeRecord);
    const NTFSAttribute* const information = volume.find(NTFSRecord::kVolumeInformation);
    if (information == nullptr || information->value.size() < 12) {
      throw AllocationDoubt("its master file table is damaged");
    }
    if ((littleEndian(information->value, 10, 2) & kUnsettled) != 0) {
      throw AllocationDoubt("the volume was not unmounted cleanly");
    }
  }

  // A journal that was emptied is filled with FF. In another one the page that was written last tells.
  void checkJournal() const {
    const NTFSRecord file = record(kLogFileRecord);
    const NTFSAttribute* const data = file.find(NTFSRecord::kData);
    if (data == nullptr || data->isResident || data->size < 2 * kRestartPage) {
      throw AllocationDoubt("its journal is damaged");
    }
    std::optional<uint64_t> newest;
    bool isClean = false;
    for (const uint64_t offset : {uint64_t{0}, uint64_t{kRestartPage}}) {
      std::vector<uint8_t> page(kRestartPage);
      readContent(volume_, ntfs_, *data, offset, page);
      const bool isEmpty = std::all_of(page.begin(), page.begin() + 4, [](uint8_t byte) { return byte == 0xFF; });
      if (isEmpty && offset == 0) return;
      if (std::memcmp(page.data(), "RSTR", 4) != 0) continue;
      const size_t area = littleEndian16(page.data() + 24);
      if (area > 510 - 16) continue;  // the last two bytes of 512 are a fixup
      const uint64_t sequence = littleEndian(page, area, 8);
      if (newest && sequence <= *newest) continue;
      newest = sequence;
      isClean =
          littleEndian(page, area + 12, 2) == kNoClient || (littleEndian(page, area + 14, 2) & kJournalIsClean) != 0;
    }
    if (!newest) throw AllocationDoubt("its journal is damaged");
    if (!isClean) throw AllocationDoubt("its journal has changes that are not on the volume yet");
  }

  void checkHibernation() const {
    const std::optional<uint64_t> number = findHibernation();
    if (!number) return;
    const NTFSRecord file = record(*number);
    const NTFSAttribute* const data = file.find(NTFSRecord::kData);
    if (data == nullptr) throw AllocationDoubt("its hibernation file cannot be examined");
    std::vector<uint8_t> start(4);
    if (data->size < start.size()) return;
    if (data->isResident) {
      std::copy_n(data->value.begin(), start.size(), start.begin());
    } else {
      readContent(volume_, ntfs_, *data, 0, start);
    }
    if (std::memcmp(start.data(), "hibr", 4) == 0 || std::memcmp(start.data(), "HIBR", 4) == 0) {
      throw AllocationDoubt("a hibernated Windows will go on with what it had in memory");
    }
  }

  // A look through the whole index: it is short, and its order needs the volume's table of upper-case letters.
  std::optional<uint64_t> findHibernation() const {
    const NTFSRecord root = record(kRootRecord);
    const NTFSAttribute* const index = root.find(NTFSRecord::kIndexRoot, kFolderIndex);
    if (index == nullptr || index->value.size() < 32) throw AllocationDoubt("its root folder is damaged");
    const std::span<const uint8_t> value(index->value);
    if (const auto found = hibernationIn(entriesOf(value.subspan(16)))) return found;
    const NTFSAttribute* const blocks = root.find(NTFSRecord::kIndexAllocation, kFolderIndex);
    if (blocks == nullptr) {
      if (root.find(NTFSRecord::kAttributeList) != nullptr || (value[28] & kHasSubnode) != 0) {
        throw AllocationDoubt("its root folder is scattered over several records");
      }
      return std::nullopt;
    }
    const uint64_t blockSize = littleEndian(value, 8, 4);
    if (blockSize < 512 || blockSize > 65536 || !isPowerOfTwo(blockSize) || blocks->size > kLargestFolder) {
      throw AllocationDoubt("its root folder is damaged or very large");
    }
    for (uint64_t offset = 0; offset + blockSize <= blocks->size; offset += blockSize) {
      std::vector<uint8_t> block(static_cast<size_t>(blockSize));
      readContent(volume_, ntfs_, *blocks, offset, block);
      if (std::memcmp(block.data(), "INDX", 4) != 0) continue;  // never used
      undoFixups(block, "INDX");
      if (const auto found = hibernationIn(entriesOf(std::span<const uint8_t>(block).subspan(24)))) return found;
    }
    return std::nullopt;
  }

  std::vector<ByteRange> readBitmap() const {
    const NTFSRecord file = record(kBitmapRecord);
    const NTFSAttribute* const bitmap = file.find(NTFSRecord::kData);
    const uint64_t needed = (ntfs_.clusters + 7) / 8;
    if (bitmap == nullptr || !bitmap->isPlain() || bitmap->size < needed || bitmap->initialized < needed) {
      throw AllocationDoubt("its $Bitmap is damaged or scattered over several records");
    }
    UsedRanges used;
    for (uint64_t offset = 0; offset < needed; offset += kLargestRead) {
      std::vector<uint8_t> bits(static_cast<size_t>(std::min<uint64_t>(kLargestRead, needed - offset)));
      if (bitmap->isResident) {
        std::copy_n(bitmap->value.begin() + static_cast<std::ptrdiff_t>(offset), bits.size(), bits.begin());
      } else {
        readContent(volume_, ntfs_, *bitmap, offset, bits);
      }
      addBits(bits, std::min<uint64_t>(bits.size() * 8, ntfs_.clusters - offset * 8), offset * 8 * ntfs_.clusterSize,
              ntfs_.clusterSize, used);
    }
    const uint64_t end = ntfs_.clusters * ntfs_.clusterSize;
    used.add(end, volume_.size() - end);
    std::vector<ByteRange> ranges = used.take();
    checkOwnClusters(ranges, *bitmap);
    return ranges;
  }

  void checkOwnClusters(const std::vector<ByteRange>& used, const NTFSAttribute& bitmap) const {
    std::vector<NTFSRun> own = {{0, 1}, {ntfs_.mirror, 1}};
    own.insert(own.end(), mft_.runs.begin(), mft_.runs.end());
    own.insert(own.end(), bitmap.runs.begin(), bitmap.runs.end());
    for (const NTFSRun& run : own) {
      if (run.isSparse || !isCovered(used, {run.cluster * ntfs_.clusterSize, run.count * ntfs_.clusterSize})) {
        throw AllocationDoubt("its $Bitmap does not count its own clusters as in use");
      }
    }
  }

  const VolumeBytes& volume_;
  const NTFSGeometry& ntfs_;
  NTFSAttribute mft_;
};

}  // namespace

void readNTFSAllocation(const VolumeBytes& volume, std::span<const uint8_t> boot, Allocation& result) {
  result.fileSystem = "ntfs";
  const NTFSGeometry ntfs = ntfsGeometryOf(boot, volume.size());
  result.clusterSize = static_cast<uint32_t>(ntfs.clusterSize);
  result.used = NTFSReader(volume, ntfs).read();
}

}  // namespace vorlix
