// SPDX-License-Identifier: Apache-2.0
#include "PropertyList.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <optional>
#include <vector>

#include "XMLPropertyList.h"

namespace vorlix {
namespace {

// Layout: "bplist00", the values, the table of their offsets, and the trailer at the end of the file. The trailer has 6
// bytes that are not used here, the size of an offset and the size of a reference (1 byte each), then the number of
// values, the index of the root and the offset of the table (8 bytes each, big-endian).
constexpr const char* kMagic = "bplist00";
constexpr size_t kMagicSize = 8;
constexpr size_t kTrailerSize = 32;
constexpr size_t kCountFollows = 15;

// The kind of a value is in the upper four bits of its first byte; the lower four bits give its size.
enum Kind : uint8_t {
  kSimple = 0,
  kInteger = 1,
  kReal = 2,
  kDate = 3,
  kData = 4,
  kASCII = 5,
  kUTF16 = 6,
  kUID = 8,
  kArray = 10,
  kDictionary = 13,
};

uint64_t bigEndian(std::span<const uint8_t> bytes) {
  uint64_t value = 0;
  for (const uint8_t byte : bytes) value = value << 8 | byte;
  return value;
}

// The cost of a value and of everything below it in the tree.
struct Cost {
  size_t values = 0;
  size_t bytes = 0;
  unsigned depth = 0;
};

class Surveyor {
 public:
  Surveyor(std::span<const uint8_t> file, const PropertyListLimits& limits) : file_(file), limits_(limits) {}

  bool bounded() {
    if (file_.size() < kMagicSize + kTrailerSize || !isBinaryPropertyList(file_)) return false;
    const auto trailer = file_.last(kTrailerSize);
    offsetSize_ = trailer[6];
    referenceSize_ = trailer[7];
    const uint64_t count = bigEndian(trailer.subspan(8, 8));
    const uint64_t root = bigEndian(trailer.subspan(16, 8));
    const uint64_t table = bigEndian(trailer.subspan(24, 8));
    const size_t beforeTrailer = file_.size() - kTrailerSize;
    if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) return false;
    if (count > limits_.values || table < kMagicSize || table > beforeTrailer) return false;
    if (count > (beforeTrailer - table) / offsetSize_) return false;
    table_ = static_cast<size_t>(table);
    costs_.resize(static_cast<size_t>(count));
    underway_.resize(costs_.size());
    return survey(root, 0).has_value();
  }

  /// The offsets of the integers that do not fit a signed 64-bit number. Valid after bounded().
  const std::vector<size_t>& oversized() const { return oversized_; }

 private:
  // The two halves of a value's first byte, its count, and the offset of its content.
  struct Header {
    uint8_t kind = 0;
    uint8_t low = 0;
    uint64_t count = 0;
    size_t at = 0;
  };

  std::optional<Header> headerAt(uint64_t offset) const {
    if (offset < kMagicSize || offset >= table_) return std::nullopt;
    Header header;
    header.at = static_cast<size_t>(offset);
    const uint8_t first = file_[header.at++];
    header.kind = first >> 4;
    header.low = first & 15;
    header.count = header.low;
    const bool counted = header.kind == kData || header.kind == kASCII || header.kind == kUTF16 ||
                         header.kind == kArray || header.kind == kDictionary;
    if (counted && header.low == kCountFollows) {
      if (header.at >= table_ || file_[header.at] >> 4 != kInteger || (file_[header.at] & 15) > 3) return std::nullopt;
      const size_t size = size_t{1} << (file_[header.at++] & 15);
      if (size > table_ - header.at) return std::nullopt;
      header.count = bigEndian(file_.subspan(header.at, size));
      header.at += size;
    }
    return header;
  }

  // Returns the size of a value's content in the file in bytes; absent for values that the format does not have.
  std::optional<uint64_t> payload(const Header& header) const {
    // A larger count cannot fit in the file. This also keeps the products below from overflowing.
    if (header.count > file_.size()) return std::nullopt;
    switch (header.kind) {
      case kSimple:
        return header.low == 0 || header.low == 8 || header.low == 9 ? std::optional<uint64_t>(0) : std::nullopt;
      case kInteger:
        return header.low <= 4 ? std::optional<uint64_t>(uint64_t{1} << header.low) : std::nullopt;
      case kReal:
        return header.low == 2 || header.low == 3 ? std::optional<uint64_t>(uint64_t{1} << header.low) : std::nullopt;
      case kDate:
        return header.low == 3 ? std::optional<uint64_t>(8) : std::nullopt;
      case kData:
      case kASCII:
        return header.count;
      case kUTF16:
        return header.count * 2;
      case kUID:
        return header.low == 0 || header.low == 1 || header.low == 3 || header.low == 7
                   ? std::optional<uint64_t>(header.low + 1)
                   : std::nullopt;
      case kArray:
        return header.count * referenceSize_;
      case kDictionary:
        return header.count * referenceSize_ * 2;
      default:
        return std::nullopt;
    }
  }

  std::optional<Cost> survey(uint64_t number, unsigned above) {
    if (number >= costs_.size() || above >= limits_.depth) return std::nullopt;
    const auto place = static_cast<size_t>(number);
    if (costs_[place]) {
      if (above + costs_[place]->depth > limits_.depth) return std::nullopt;
      return costs_[place];
    }
    if (underway_[place]) return std::nullopt;
    underway_[place] = true;
    costs_[place] = measure(place, above);
    underway_[place] = false;
    return costs_[place];
  }

  std::optional<Cost> measure(size_t place, unsigned above) {
    const auto header = headerAt(bigEndian(file_.subspan(table_ + place * offsetSize_, offsetSize_)));
    const auto size = header ? payload(*header) : std::nullopt;
    if (!size || *size > table_ - header->at) return std::nullopt;
    Cost cost{1, 0, 1};
    switch (header->kind) {
      case kInteger:
        // Writers use sixteen bytes for unsigned 64-bit numbers.
        if (*size == 16 && (bigEndian(file_.subspan(header->at, 8)) != 0 || file_[header->at + 8] >= 0x80)) {
          oversized_.push_back(header->at - 1);
        }
        break;
      case kData:
      case kASCII:
        cost.bytes = static_cast<size_t>(*size);
        break;
      case kUTF16:
        cost.bytes = static_cast<size_t>(header->count) * 3;  // a UTF-16 code unit takes at most 3 bytes in UTF-8
        break;
      case kArray:
      case kDictionary:
        for (uint64_t at = 0; at < *size; at += referenceSize_) {
          const auto below =
              survey(bigEndian(file_.subspan(header->at + static_cast<size_t>(at), referenceSize_)), above + 1);
          if (!below) return std::nullopt;
          cost.values += below->values;
          cost.bytes += below->bytes;
          cost.depth = std::max(cost.depth, below->depth + 1);
          if (cost.values > limits_.values || cost.bytes > limits_.bytes) return std::nullopt;
        }
        break;
      default:
        break;
    }
    if (cost.values > limits_.values || cost.bytes > limits_.bytes) return std::nullopt;
    return cost;
  }

  std::span<const uint8_t> file_;
  PropertyListLimits limits_;
  size_t offsetSize_ = 0;
  size_t referenceSize_ = 0;
  size_t table_ = 0;
  std::vector<std::optional<Cost>> costs_;
  std::vector<bool> underway_;
  std::vector<size_t> oversized_;
};

plist_t parsedBinary(std::span<const uint8_t> file) {
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(file.data()), static_cast<uint32_t>(file.size()), &root);
  return root;
}

plist_t parseBinary(std::span<const uint8_t> file, const PropertyListLimits& limits) {
  Surveyor surveyor(file, limits);
  if (!surveyor.bounded()) return nullptr;
  if (surveyor.oversized().empty()) return parsedBinary(file);
  // Turn each of these integers into a date, which takes fewer bytes. Values that overlap one in a hostile file change
  // too, so check the limits again.
  constexpr uint8_t kDateHeader = kDate << 4 | 3;
  std::vector<uint8_t> changed(file.begin(), file.end());
  for (const size_t place : surveyor.oversized()) changed[place] = kDateHeader;
  Surveyor again(changed, limits);
  return again.bounded() && again.oversized().empty() ? parsedBinary(changed) : nullptr;
}

plist_t parseXML(std::span<const uint8_t> file, const PropertyListLimits& limits) {
  const auto text = boundedXMLPropertyList({reinterpret_cast<const char*>(file.data()), file.size()}, limits);
  plist_t root = nullptr;
  if (text) plist_from_xml(text->data(), static_cast<uint32_t>(text->size()), &root);
  return root;
}

}  // namespace

bool isBinaryPropertyList(std::span<const uint8_t> file) {
  return file.size() >= kMagicSize && std::memcmp(file.data(), kMagic, kMagicSize) == 0;
}

bool isBoundedPropertyList(std::span<const uint8_t> file, const PropertyListLimits& limits) {
  return Surveyor(file, limits).bounded();
}

PropertyListOwner parsePropertyList(std::span<const uint8_t> file, const PropertyListLimits& limits) {
  if (file.size() > std::numeric_limits<uint32_t>::max()) return nullptr;
  return PropertyListOwner(isBinaryPropertyList(file) ? parseBinary(file, limits) : parseXML(file, limits));
}

}  // namespace vorlix
