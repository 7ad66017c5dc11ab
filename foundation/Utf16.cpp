// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/LittleEndian.h>
#include <Vorlix/foundation/Utf16.h>
#include <Vorlix/foundation/Utf8.h>

namespace vorlix {
namespace {

constexpr uint32_t kBeyondOneUnit = 0x10000;
constexpr uint32_t kUnitReplacement = 0xFFFD;

bool isHighSurrogate(char16_t unit) {
  return (unit & 0xFC00U) == 0xD800U;
}

bool isLowSurrogate(char16_t unit) {
  return (unit & 0xFC00U) == 0xDC00U;
}

}  // namespace

std::optional<uint32_t> takeCharacter(std::u16string_view& text) {
  const char16_t first = text.front();
  text.remove_prefix(1);
  if (!isHighSurrogate(first) && !isLowSurrogate(first)) return first;
  if (isLowSurrogate(first) || text.empty() || !isLowSurrogate(text.front())) return std::nullopt;
  const char16_t second = text.front();
  text.remove_prefix(1);
  return kBeyondOneUnit + ((first & 0x3FFU) << 10) + (second & 0x3FFU);
}

std::u16string utf16Units(std::span<const uint8_t> bytes) {
  std::u16string units;
  units.reserve(bytes.size() / 2);
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) units += static_cast<char16_t>(littleEndian16(&bytes[i]));
  return units;
}

std::string utf8Of(std::u16string_view text) {
  std::string utf8;
  utf8.reserve(text.size());
  while (!text.empty()) appendUtf8(utf8, takeCharacter(text).value_or(kUnitReplacement));
  return utf8;
}

std::vector<uint8_t> utf16Bytes(std::string_view text) {
  std::vector<uint8_t> bytes;
  const auto add = [&](uint32_t unit) {
    bytes.push_back(static_cast<uint8_t>(unit));
    bytes.push_back(static_cast<uint8_t>(unit >> 8));
  };
  const std::string utf8 = repairedUtf8(text);
  for (size_t i = 0; i < utf8.size();) {
    const auto lead = static_cast<uint8_t>(utf8[i++]);
    const int following = lead < 0x80 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    uint32_t character = following == 0 ? lead : lead & (0x3FU >> following);
    for (int k = 0; k < following; ++k) character = character << 6 | (static_cast<uint8_t>(utf8[i++]) & 0x3FU);
    if (character < kBeyondOneUnit) {
      add(character);
    } else {
      add(0xD800U | (character - kBeyondOneUnit) >> 10);
      add(0xDC00U | ((character - kBeyondOneUnit) & 0x3FFU));
    }
  }
  return bytes;
}

}  // namespace vorlix
