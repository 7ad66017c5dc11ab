// SPDX-License-Identifier: Apache-2.0
#include "WimSource.h"

#include <Vorlix/foundation/LittleEndian.h>
#include <Vorlix/foundation/Utf16.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

namespace vorlix {
namespace {

constexpr std::string_view kWimMagic("MSWIM\0\0\0", 8);
constexpr std::string_view kPipableMagic("WLPWM\0\0\0", 8);  // the same header, for files that were written to a pipe
constexpr size_t kWimHeader = 208;
constexpr size_t kListOffset = 72;  // resource: size and flags, 8 bytes; offset, 8; unpacked size, 8
constexpr uint64_t kLargestList = uint64_t{1} << 20;
constexpr uint32_t kMostImages = 4096;
constexpr char16_t kByteOrderMark = 0xFEFF;

bool hasMagic(std::span<const uint8_t> start, std::string_view magic) {
  return start.size() >= magic.size() && std::memcmp(start.data(), magic.data(), magic.size()) == 0;
}

// What is between two texts, the first of them at or behind `from`.
std::string_view textBetween(std::string_view text, std::string_view first, std::string_view last, size_t from = 0) {
  const size_t start = text.find(first, from);
  if (start == std::string_view::npos) return {};
  const size_t end = text.find(last, start + first.size());
  if (end == std::string_view::npos) return {};
  return text.substr(start + first.size(), end - start - first.size());
}

uint64_t numberOf(std::string_view digits) {
  uint64_t number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

// The list of images, UTF-8; empty where it cannot be read.
std::string readList(std::span<const uint8_t> start, SourceFile& file) {
  constexpr uint8_t kPacked = 4;
  const uint64_t size = littleEndian(&start[kListOffset], 7);
  const uint64_t offset = littleEndian(&start[kListOffset + 8], 8);
  const uint64_t end = file.size().value_or(0);
  if ((start[kListOffset + 7] & kPacked) != 0 || size > kLargestList || offset > end || size > end - offset) return {};
  std::vector<uint8_t> list(size);
  if (!file.seek(offset)) return {};
  for (size_t done = 0; done < list.size();) {
    const ssize_t step = file.read(list.data() + done, list.size() - done);
    if (step <= 0) return {};
    done += static_cast<size_t>(step);
  }
  const std::u16string units = utf16Units(list);
  return utf8Of(std::u16string_view(units).substr(units.starts_with(kByteOrderMark) ? 1 : 0));
}

std::string withoutEntities(std::string_view escaped) {
  constexpr std::pair<std::string_view, char> kEntities[] = {
      {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}, {"&amp;", '&'}};
  std::string text;
  while (!escaped.empty()) {
    const auto* const found = std::find_if(std::begin(kEntities), std::end(kEntities),
                                           [&](const auto& entity) { return escaped.starts_with(entity.first); });
    const bool isEntity = found != std::end(kEntities);
    text += isEntity ? found->second : escaped.front();
    escaped.remove_prefix(isEntity ? found->first.size() : 1);
  }
  return text;
}

}  // namespace

bool isWim(std::span<const uint8_t> start) {
  return hasMagic(start, kWimMagic) || hasMagic(start, kPipableMagic);
}

std::optional<WimFacts> parseWimHeader(std::span<const uint8_t> start, std::string& reason) {
  constexpr uint64_t kSolidVersion = 0xE00;
  constexpr uint32_t kContentsOnly = 0x10;
  constexpr uint32_t kMetadataOnly = 0x20;
  if (start.size() < kWimHeader || littleEndian32(&start[8]) < kWimHeader) {
    reason = "truncated WIM";
    return std::nullopt;
  }
  WimFacts facts;
  facts.isSolid = littleEndian32(&start[12]) == kSolidVersion;
  facts.isIncomplete = (littleEndian32(&start[16]) & (kContentsOnly | kMetadataOnly)) != 0;
  facts.part = littleEndian16(&start[40]);
  facts.parts = littleEndian16(&start[42]);
  facts.imageCount = littleEndian32(&start[44]);
  if (facts.part != 0 && facts.part <= facts.parts) return facts;
  reason = "damaged WIM: part " + std::to_string(facts.part) + " of " + std::to_string(facts.parts);
  return std::nullopt;
}

std::vector<uint8_t> wimKey(std::span<const uint8_t> start) {
  return {start.begin(), start.begin() + kWimHeader};
}

void readWimList(std::span<const uint8_t> start, SourceFile& file, WimFacts& facts) {
  const std::string text = readList(start, file);
  facts.isEncrypted = textBetween(text, "<ESD>", "</ESD>").find("<ENCRYPTED") != std::string_view::npos;
  for (uint32_t index = 1; index <= std::min(facts.imageCount, kMostImages); ++index) {
    const std::string tag = "<IMAGE INDEX=\"" + std::to_string(index) + "\"";
    const std::string_view entry = textBetween(text, tag, "</IMAGE>");
    if (entry.empty()) {
      facts.images.clear();
      return;
    }
    const auto number = [&](const std::string& name) {
      return numberOf(textBetween(entry, "<" + name + ">", "</" + name + ">"));
    };
    WimFacts::Image image;
    image.index = index;
    image.name = withoutEntities(textBetween(entry, "<NAME>", "</NAME>"));
    image.size = number("TOTALBYTES");
    image.linkedSize = number("HARDLINKBYTES");
    const uint64_t files = number("FILECOUNT");
    image.files = files + std::min(number("DIRCOUNT"), std::numeric_limits<uint64_t>::max() - files);
    facts.images.push_back(std::move(image));
  }
}

}  // namespace vorlix
