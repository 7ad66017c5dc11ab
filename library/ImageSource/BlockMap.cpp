// SPDX-License-Identifier: Apache-2.0
#include "BlockMap.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>
#include <utility>

namespace vorlix {
namespace {

constexpr size_t kLongestTag = 1024;
constexpr size_t kLongestText = 256;  // of an element that counts
constexpr size_t kDeepest = 8;
constexpr uint64_t kLargestBlock = uint64_t{1} << 30;
constexpr std::string_view kBlanks = " \t\r\n";

bool isBlank(char c) {
  return kBlanks.find(c) != std::string_view::npos;
}

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<uint64_t> numberIn(std::string_view text) {
  text = trimmed(text);
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (number > std::numeric_limits<int64_t>::max()) return std::nullopt;
  return number;
}

// The bytes of hexadecimal digits in any case. Empty where there are others.
std::vector<uint8_t> bytesOfDigits(std::string_view digits) {
  std::vector<uint8_t> bytes;
  if (digits.size() % 2 != 0) return bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    uint8_t byte = 0;
    const auto [end, error] = std::from_chars(digits.data() + i, digits.data() + i + 2, byte, 16);
    if (error != std::errc() || end != digits.data() + i + 2) return {};
    bytes.push_back(byte);
  }
  return bytes;
}

std::string nameInTag(std::string_view tag) {
  return std::string(tag.substr(0, tag.find_first_of(" \t\r\n/")));
}

}  // namespace

bool BlockMap::isVerified() const {
  return std::find(hasHash.begin(), hasHash.end(), false) == hasHash.end();
}

std::span<const uint8_t> BlockMap::hashOf(size_t range) const {
  if (!hash || !hasHash[range]) return {};
  const size_t size = hashSize(*hash);
  return std::span(hashes).subspan(range * size, size);
}

BlockMapReader::BlockMapReader() {
  // Which of them is the file's is written in the file.
  for (const HashKind kind : {HashKind::sha1, HashKind::sha256, HashKind::sha512}) {
    running_.emplace_back(kind, std::make_unique<RunningHash>(kind));
  }
}

bool BlockMapReader::fail(std::string reason) {
  reason_ = std::move(reason);
  return false;
}

bool BlockMapReader::add(std::span<const uint8_t> bytes) {
  if (!reason_.empty()) return false;
  std::vector<uint8_t> hashed(bytes.begin(), bytes.end());
  for (uint8_t& byte : hashed) {
    if (!addByte(byte)) return false;
  }
  for (auto& hash : running_) hash.second->add(hashed);
  return true;
}

bool BlockMapReader::isInFileHash() const {
  return open_.size() == 2 && (open_[1] == "BmapFileChecksum" || open_[1] == "BmapFileSHA1");
}

// @param byte  becomes what it counts as for the file's hash.
bool BlockMapReader::addByte(uint8_t& byte) {
  const char c = static_cast<char>(byte);
  switch (place_) {
    case Place::text:
      if (c == '<') {
        place_ = Place::tag;
        tag_.clear();
        quote_ = '\0';
        return true;
      }
      if (isBlank(c)) {
        if (!text_.empty() && text_.size() < kLongestText) text_ += c;
        return true;
      }
      if (isInFileHash()) byte = '0';
      text_ += c;
      return text_.size() <= kLongestText || fail("it is not a block map: a text is too long");
    case Place::tag:
      if (quote_ == '\0' && c == '>') return endTag();
      if (c == quote_) {
        quote_ = '\0';
      } else if (quote_ == '\0' && (c == '"' || c == '\'')) {
        quote_ = c;
      }
      tag_ += c;
      if (tag_ == "!--") place_ = Place::comment;
      if (tag_ == "?") place_ = Place::instruction;
      if (place_ != Place::tag) tag_.clear();
      return tag_.size() <= kLongestTag || fail("it is not a block map: a tag is too long");
    case Place::comment:
    case Place::instruction: {
      tag_ += c;
      const std::string_view end = place_ == Place::comment ? "-->" : "?>";
      if (tag_.ends_with(end)) {
        place_ = Place::text;
      } else if (tag_.size() > kLongestTag) {
        tag_.erase(0, tag_.size() - end.size());
      }
      return true;
    }
  }
  return true;
}

bool BlockMapReader::endTag() {
  place_ = Place::text;
  if (tag_.starts_with('!')) return fail("it is not a block map: it declares types");
  if (tag_.starts_with('/')) return close(nameInTag(std::string_view(tag_).substr(1)));
  const std::string name = nameInTag(tag_);
  if (!open(name)) return false;
  return !tag_.ends_with('/') || close(name);
}

bool BlockMapReader::open(const std::string& name) {
  if (isDone_ || name.empty() || (open_.empty() && name != "bmap")) return fail("it is not a block map");
  if (open_.size() == kDeepest) return fail("it is not a block map: its elements are nested too deeply");
  open_.push_back(name);
  text_.clear();
  if (open_.size() == 1) return setVersion();
  if (open_.size() == 3 && open_[1] == "BlockMap" && name == "Range") rangeTag_ = tag_;
  return true;
}

std::optional<std::string> BlockMapReader::attribute(const std::string& name) const {
  const std::string& tag = open_.size() == 1 ? tag_ : rangeTag_;
  for (size_t place = tag.find(name); place != std::string::npos; place = tag.find(name, place + 1)) {
    size_t next = place + name.size();
    if (place == 0 || !isBlank(tag[place - 1])) continue;
    next = tag.find_first_not_of(kBlanks, next);
    if (next == std::string::npos || tag[next] != '=') continue;
    next = tag.find_first_not_of(kBlanks, next + 1);
    if (next == std::string::npos || (tag[next] != '"' && tag[next] != '\'')) continue;
    const size_t end = tag.find(tag[next], next + 1);
    if (end == std::string::npos) continue;
    return tag.substr(next + 1, end - next - 1);
  }
  return std::nullopt;
}

bool BlockMapReader::setVersion() {
  const std::string version = attribute("version").value_or("");
  const size_t dot = version.find('.');
  const auto major = numberIn(version.substr(0, dot));
  const auto minor = dot == std::string::npos ? std::nullopt : numberIn(version.substr(dot + 1));
  if (!major || !minor) return fail("it is not a block map: it has no version");
  const bool isKnown = (*major == 1 && (*minor == 3 || *minor == 4)) || *major == 2;
  if (!isKnown || *minor > 99) return fail("block maps of version " + version + " are not read, only 1.3, 1.4 and 2");
  major_ = static_cast<int>(*major);
  minor_ = static_cast<int>(*minor);
  if (major_ == 1 && minor_ == 3) hashName_ = "sha1";
  return true;
}

bool BlockMapReader::setNumber(const std::string& name, std::optional<uint64_t>& number) {
  if (number) return fail("it tells " + name + " twice");
  number = numberIn(text_);
  return number || fail(name + " is no number");
}

bool BlockMapReader::close(const std::string& name) {
  if (open_.empty() || open_.back() != name) return fail("it is not a block map: its elements are not nested");
  bool isRight = true;
  if (open_.size() == 2) {
    if (name == "ImageSize") isRight = setNumber(name, imageSize_);
    if (name == "BlockSize") isRight = setNumber(name, blockSize_);
    if (name == "BlocksCount") isRight = setNumber(name, blockCount_);
    if (name == "MappedBlocksCount") isRight = setNumber(name, usedCount_);
    if (name == "ChecksumType") {
      isRight = !hashName_ || fail("it tells ChecksumType twice");
      hashName_ = trimmed(text_);
    }
    if (isInFileHash()) {
      isRight = !fileHash_ || fail("it tells " + name + " twice");
      fileHash_ = trimmed(text_);
    }
  }
  if (open_.size() == 3 && open_[1] == "BlockMap" && name == "Range") isRight = addRange();
  open_.pop_back();
  text_.clear();
  isDone_ = open_.empty();
  return isRight;
}

bool BlockMapReader::addRange() {
  if (map_.ranges.size() == kMostBlockMapRanges) return fail("it has too many ranges");
  const size_t dash = text_.find('-');
  const auto first = numberIn(std::string_view(text_).substr(0, dash));
  const auto last = dash == std::string::npos ? first : numberIn(std::string_view(text_).substr(dash + 1));
  if (!first || !last || *first > *last) return fail("\"" + std::string(trimmed(text_)) + "\" is no range of blocks");
  if (*first < nextBlock_) return fail("its ranges are not in rising order");
  nextBlock_ = *last + 1;
  inRanges_ += *last - *first + 1;
  map_.ranges.push_back({*first, *last - *first + 1});  // in blocks, whose size may be told later

  const auto digits = attribute(major_ == 1 && minor_ == 3 ? "sha1" : "chksum");
  map_.hasHash.push_back(digits.has_value());
  const auto kind = hashName_ ? hashKindOf(*hashName_) : std::nullopt;
  if (!kind) return fail(hashName_ ? "hashes of type " + *hashName_ + " are not known" : "its hashes have no type");
  std::vector<uint8_t> hash = digits ? bytesOfDigits(*digits) : std::vector<uint8_t>(hashSize(*kind));
  if (hash.size() != hashSize(*kind)) return fail("\"" + digits->substr(0, 2 * hashSize(*kind)) + "\" is no hash");
  constexpr size_t kMostHashBytes = kMostBlockMapRanges * 32;
  if (map_.hashes.size() + hash.size() > kMostHashBytes) return fail("it has too many ranges");
  map_.hashes.insert(map_.hashes.end(), hash.begin(), hash.end());
  return true;
}

bool BlockMapReader::checkFileHash() {
  map_.hash = hashName_ ? hashKindOf(*hashName_) : std::nullopt;
  if (!map_.hash)
    return fail(hashName_ ? "hashes of type " + *hashName_ + " are not known" : "its hashes have no type");
  if (!fileHash_) return fail("it is damaged: it has no hash of itself");
  for (auto& [kind, hash] : running_) {
    if (kind == map_.hash)
      return hash->finish() == bytesOfDigits(*fileHash_) || fail("it is damaged: its hash is wrong");
  }
  return false;
}

bool BlockMapReader::checkNumbers() {
  if (!imageSize_ || !blockSize_ || !blockCount_ || !usedCount_) return fail("it is damaged: a number is missing");
  if (*imageSize_ == 0 || *blockSize_ == 0 || *blockSize_ > kLargestBlock) return fail("its sizes are impossible");
  if (*blockCount_ != (*imageSize_ - 1) / *blockSize_ + 1) return fail("its image size and its blocks do not agree");
  if (inRanges_ != *usedCount_) return fail("its ranges and its number of used blocks do not agree");
  return nextBlock_ <= *blockCount_ || fail("a range is behind the end of the image");
}

bool BlockMapReader::finish() {
  if (!reason_.empty()) return false;
  if (!isDone_ || place_ != Place::text) return fail("it is not a block map, or truncated");
  if (!checkFileHash() || !checkNumbers()) return false;
  map_.imageSize = *imageSize_;
  for (ImageRange& range : map_.ranges) {
    range.offset *= *blockSize_;
    range.length = std::min(range.length * *blockSize_, map_.imageSize - range.offset);
  }
  return true;
}

}  // namespace vorlix
