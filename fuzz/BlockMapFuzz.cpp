// SPDX-License-Identifier: Apache-2.0
//
// Reads arbitrary bytes as a block map, in runs of one length and another. The hash of the file is not guessed by a
// search, so the input's own, where it stands, is replaced with the right one first.
#include "library/ImageSource/BlockMap.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "FuzzSupport.h"

namespace {

using vorlix::BlockMap;
using vorlix::BlockMapReader;

std::string digitsOf(const std::vector<uint8_t>& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string digits;
  for (const uint8_t byte : bytes) {
    digits += kDigits[byte >> 4];
    digits += kDigits[byte & 15];
  }
  return digits;
}

// Puts the right hash between the tags, if the input has a place of that length.
void giveHash(std::string& text, const std::string& tag, vorlix::HashKind kind) {
  const size_t size = 2 * vorlix::hashSize(kind);
  const size_t place = text.find("<" + tag + ">");
  if (place == std::string::npos) return;
  const size_t first = place + tag.size() + 2;
  if (first + size > text.size() || text[first + size] != '<') return;
  std::fill_n(text.begin() + static_cast<ptrdiff_t>(first), size, '0');
  vorlix::RunningHash hash(kind);
  hash.add({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
  text.replace(first, size, digitsOf(hash.finish()));
}

bool readMap(const std::string& text, size_t step, BlockMapReader& reader) {
  const auto* const bytes = reinterpret_cast<const uint8_t*>(text.data());
  for (size_t i = 0; i < text.size(); i += step) {
    if (!reader.add({bytes + i, std::min(step, text.size() - i)})) return false;
  }
  return reader.finish();
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  giveHash(text, "BmapFileChecksum", vorlix::HashKind::sha256);
  giveHash(text, "BmapFileSHA1", vorlix::HashKind::sha1);
  BlockMapReader whole;
  BlockMapReader parts;
  const bool isMap = readMap(text, text.size() + 1, whole);
  FUZZ_CHECK(readMap(text, 7, parts) == isMap);
  FUZZ_CHECK(whole.reason() == parts.reason());
  FUZZ_CHECK(isMap == whole.reason().empty());
  if (!isMap) return 0;
  const BlockMap map = whole.takeMap();
  FUZZ_CHECK(map.ranges == parts.takeMap().ranges);
  FUZZ_CHECK(map.hasHash.size() == map.ranges.size());
  FUZZ_CHECK(map.hashes.size() == map.ranges.size() * vorlix::hashSize(*map.hash));
  uint64_t end = 0;
  for (const vorlix::ImageRange& range : map.ranges) {
    FUZZ_CHECK(range.offset >= end && range.length > 0);
    FUZZ_CHECK(range.offset < map.imageSize && range.length <= map.imageSize - range.offset);
    end = range.offset + range.length;
  }
  return 0;
}
