// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "PackedSizes.h"

namespace vorlix {
namespace {

constexpr uint64_t kEndMark = 0x06054B50;
constexpr size_t kEndSize = 22;
constexpr uint64_t kLongEndMark = 0x06064B50;
constexpr size_t kLongEndSize = 56;
constexpr uint64_t kLocatorMark = 0x07064B50;
constexpr size_t kLocatorSize = 20;
constexpr uint64_t kEntryMark = 0x02014B50;
constexpr size_t kDirectoryEntrySize = 46;
constexpr size_t kLongestComment = 65535;
constexpr uint64_t kLargestDirectory = uint64_t{1} << 20;
constexpr uint64_t kIsLong = 0xFFFFFFFF;  // the number is in an extra field

struct Directory {
  uint64_t offset = 0;
  uint64_t size = 0;
};

std::optional<Directory> longDirectory(const PackedFile& file, uint64_t end) {
  std::vector<uint8_t> bytes(kLocatorSize);
  if (end < kLocatorSize || !file.readAt(end - kLocatorSize, bytes.data(), bytes.size())) return std::nullopt;
  if (littleEndian(bytes, 0, 4) != kLocatorMark) return std::nullopt;
  const uint64_t place = littleEndian(bytes, 8, 8);
  bytes.resize(kLongEndSize);
  if (!file.readAt(place, bytes.data(), bytes.size()) || littleEndian(bytes, 0, 4) != kLongEndMark) return std::nullopt;
  return Directory{littleEndian(bytes, 48, 8), littleEndian(bytes, 40, 8)};
}

// The last record of a zip file tells where its directory is; only a comment follows it.
std::optional<Directory> findDirectory(const PackedFile& file) {
  const uint64_t size = file.size().value_or(0);
  if (size < kEndSize) return std::nullopt;
  std::vector<uint8_t> tail(std::min<uint64_t>(size, kEndSize + kLongestComment));
  const uint64_t start = size - tail.size();
  if (!file.readAt(start, tail.data(), tail.size())) return std::nullopt;
  for (size_t place = tail.size() - kEndSize + 1; place-- > 0;) {
    if (littleEndian(tail, place, 4) != kEndMark) continue;
    if (littleEndian(tail, place + 20, 2) > tail.size() - place - kEndSize) continue;
    const Directory directory = {littleEndian(tail, place + 16, 4), littleEndian(tail, place + 12, 4)};
    if (const auto other = longDirectory(file, start + place)) return other;
    return directory;
  }
  return std::nullopt;
}

// One entry of the directory, and the bytes behind it.
class Entry {
 public:
  static std::optional<Entry> at(const std::vector<uint8_t>& directory, size_t place) {
    if (directory.size() - place < kDirectoryEntrySize || littleEndian(directory, place, 4) != kEntryMark)
      return std::nullopt;
    const Entry entry(directory.data() + place);
    if (entry.length() > directory.size() - place) return std::nullopt;
    return entry;
  }

  size_t length() const { return kDirectoryEntrySize + nameLength() + extraLength() + number(32, 2); }

  bool isFile() const {
    constexpr uint64_t kUnix = 3;
    constexpr uint64_t kTypeMask = 0170000;
    constexpr uint64_t kFolder = 0040000;
    constexpr uint64_t kLink = 0120000;
    const uint64_t type = number(5, 1) == kUnix ? number(40, 2) & kTypeMask : 0;
    return !name().ends_with('/') && type != kFolder && type != kLink && !name().starts_with("__MACOSX/");
  }

  bool isEncrypted() const { return (number(8, 2) & 1) != 0; }

  ZippedFile file() const {
    uint64_t packedSize = number(20, 4);
    ZippedFile file = {number(42, 4), number(24, 4)};
    const size_t end = kDirectoryEntrySize + nameLength() + extraLength();
    for (size_t place = kDirectoryEntrySize + nameLength(); end - place >= 4;) {
      const size_t next = place + 4 + number(place + 2, 2);
      if (next > end) break;
      constexpr uint64_t kLongNumbers = 1;
      if (number(place, 2) == kLongNumbers) {
        place += 4;
        for (uint64_t* value : {&file.size, &packedSize, &file.headerOffset}) {
          if (*value != kIsLong || next - place < 8) continue;
          *value = number(place, 8);
          place += 8;
        }
      }
      place = next;
    }
    return file;
  }

 private:
  explicit Entry(const uint8_t* bytes) : bytes_(bytes) {}

  size_t number(size_t offset, size_t count) const { return littleEndian(bytes_ + offset, count); }
  size_t nameLength() const { return number(28, 2); }
  size_t extraLength() const { return number(30, 2); }
  std::string_view name() const { return {reinterpret_cast<const char*>(bytes_) + kDirectoryEntrySize, nameLength()}; }

  const uint8_t* bytes_;
};

}  // namespace

std::optional<ZippedFile> findZippedFile(const PackedFile& file, std::string& reason) {
  const auto place = findDirectory(file);
  if (!place) {
    reason = "truncated zip file: its directory is missing";
    return std::nullopt;
  }
  if (place->size > kLargestDirectory) {
    reason = "there are several files in the zip file";
    return std::nullopt;
  }
  std::vector<uint8_t> directory(place->size);
  if (!file.readAt(place->offset, directory.data(), directory.size())) {
    reason = "damaged zip file: its directory is not where it should be";
    return std::nullopt;
  }
  std::optional<ZippedFile> found;
  for (size_t offset = 0; offset < directory.size();) {
    const auto entry = Entry::at(directory, offset);
    if (!entry) {
      reason = "damaged zip file: its directory cannot be read";
      return std::nullopt;
    }
    offset += entry->length();
    if (!entry->isFile()) continue;
    if (found) {
      reason = "there are several files in the zip file";
      return std::nullopt;
    }
    if (entry->isEncrypted()) {
      reason = "the zip file is encrypted";
      return std::nullopt;
    }
    found = entry->file();
  }
  if (!found) reason = "there is no file in the zip file";
  return found;
}

}  // namespace vorlix
