// SPDX-License-Identifier: Apache-2.0
#include "ValueText.h"

#include <Vorlix/foundation/HexDigits.h>
#include <Vorlix/foundation/Utf16.h>

#include <algorithm>
#include <span>
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

uint8_t byteAt(std::string_view data, size_t place) {
  return static_cast<uint8_t>(data[place]);
}

std::span<const uint8_t> bytesOf(std::string_view data) {
  return {reinterpret_cast<const uint8_t*>(data.data()), data.size()};
}

// Decodes little-endian UTF-16. An odd byte at the end becomes U+FFFD.
std::u16string codeUnits(std::string_view data) {
  constexpr char16_t kReplacement = 0xFFFD;
  std::u16string units = utf16Units(bytesOf(data));
  if (data.size() % 2 != 0) units += kReplacement;
  return units;
}

std::string stringLine(std::string_view data) {
  const std::u16string units = codeUnits(data);
  return utf8Of(std::u16string_view(units).substr(0, units.find(u'\0'))) + '\n';
}

std::string stringLines(std::string_view data) {
  const std::u16string units = codeUnits(data);
  std::string lines;
  for (std::u16string_view rest = units; !rest.empty() && rest[0] != 0;) {
    const size_t length = std::min(rest.find(u'\0'), rest.size());
    lines += utf8Of(rest.substr(0, length)) + '\n';
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
  return hexText(bytesOf(data)) + '\n';
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
