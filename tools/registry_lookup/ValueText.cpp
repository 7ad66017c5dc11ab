// SPDX-License-Identifier: Apache-2.0
#include "ValueText.h"

#include <algorithm>
#include <string_view>

namespace vorlix::registry {
namespace {

// Types of values, with the numbers of winnt.h.
enum ValueType : uint32_t {
  kString = 1,
  kExpandString = 2,
  kNumber32 = 4,
  kBigEndianNumber32 = 5,
  kMultipleStrings = 7,
  kNumber64 = 11,
};

constexpr char32_t kReplacement = 0xFFFD;

uint8_t byteAt(std::string_view data, size_t place) {
  return static_cast<uint8_t>(data[place]);
}

// Decodes little-endian UTF-16. An odd byte at the end becomes U+FFFD.
std::u16string codeUnits(std::string_view data) {
  std::u16string units;
  units.reserve(data.size() / 2 + 1);
  for (size_t i = 0; i + 1 < data.size(); i += 2) {
    units += static_cast<char16_t>(byteAt(data, i) | byteAt(data, i + 1) << 8);
  }
  if (data.size() % 2 != 0) units += static_cast<char16_t>(kReplacement);
  return units;
}

void append(std::string& text, char32_t character) {
  if (character < 0x80) {
    text += static_cast<char>(character);
    return;
  }
  const int following = character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
  const char32_t lead = following == 1 ? 0xC0 : following == 2 ? 0xE0 : 0xF0;
  text += static_cast<char>(lead | character >> (6 * following));
  for (int i = following - 1; i >= 0; --i) text += static_cast<char>(0x80 | (character >> (6 * i) & 0x3F));
}

bool isHighSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xD800;
}
bool isLowSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xDC00;
}

std::string utf8(std::u16string_view units) {
  std::string text;
  text.reserve(units.size());
  for (size_t i = 0; i < units.size(); ++i) {
    if (isHighSurrogate(units[i]) && i + 1 < units.size() && isLowSurrogate(units[i + 1])) {
      append(text, 0x10000 + (static_cast<char32_t>(units[i] & 0x3FF) << 10) + (units[i + 1] & 0x3FF));
      ++i;
    } else {
      append(text, isHighSurrogate(units[i]) || isLowSurrogate(units[i]) ? kReplacement : units[i]);
    }
  }
  return text;
}

std::string stringLine(std::string_view data) {
  const std::u16string units = codeUnits(data);
  return utf8(std::u16string_view(units).substr(0, units.find(u'\0'))) + '\n';
}

std::string stringLines(std::string_view data) {
  const std::u16string units = codeUnits(data);
  std::string lines;
  for (std::u16string_view rest = units; !rest.empty() && rest[0] != 0;) {
    const size_t length = std::min(rest.find(u'\0'), rest.size());
    lines += utf8(rest.substr(0, length)) + '\n';
    rest.remove_prefix(std::min(length + 1, rest.size()));
  }
  return lines;
}

std::string numberLine(std::string_view data, bool bigEndian) {
  uint64_t number = 0;
  for (size_t i = 0; i < data.size(); ++i) number = number << 8 | byteAt(data, bigEndian ? i : data.size() - 1 - i);
  return std::to_string(number) + '\n';
}

std::string hexLine(std::string_view data) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string line;
  line.reserve(2 * data.size() + 1);
  for (size_t i = 0; i < data.size(); ++i) {
    line += kDigits[byteAt(data, i) >> 4];
    line += kDigits[byteAt(data, i) & 0xF];
  }
  return line + '\n';
}

}  // namespace

std::string valueText(const RegistryValue& value) {
  const size_t size = value.data.size();
  switch (value.type) {
    case kString:
    case kExpandString:
      return stringLine(value.data);
    case kMultipleStrings:
      return stringLines(value.data);
    case kNumber32:
    case kBigEndianNumber32:
      return size == 4 ? numberLine(value.data, value.type == kBigEndianNumber32) : hexLine(value.data);
    case kNumber64:
      return size == 8 ? numberLine(value.data, false) : hexLine(value.data);
    default:
      return hexLine(value.data);
  }
}

}  // namespace vorlix::registry
