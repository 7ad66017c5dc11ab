// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/HexDigits.h>
#include <Vorlix/foundation/UUID.h>

#include <random>

namespace vorlix {
namespace {

constexpr size_t kTextSize = 36;

bool isDashPlace(size_t place) {
  return place == 8 || place == 13 || place == 18 || place == 23;
}

}  // namespace

UUID UUID::random() {
  std::random_device source;
  Bytes bytes = {};
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(source());
  // RFC 9562, 5.4: the version in the upper half of byte 6, the variant in the upper two bits of byte 8.
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);
  return UUID(bytes);
}

std::optional<UUID> UUID::fromText(std::string_view text) {
  if (text.size() != kTextSize) return std::nullopt;
  Bytes bytes = {};
  size_t digits = 0;
  for (size_t i = 0; i < kTextSize; ++i) {
    if (isDashPlace(i)) {
      if (text[i] != '-') return std::nullopt;
      continue;
    }
    const int value = hexDigitValue(text[i]);
    if (value < 0) return std::nullopt;
    bytes[digits / 2] = static_cast<uint8_t>(bytes[digits / 2] << 4 | value);
    ++digits;
  }
  return UUID(bytes);
}

std::string UUID::text() const {
  std::string result;
  for (const uint8_t byte : bytes_) {
    if (isDashPlace(result.size())) result += '-';
    appendUpperHex(result, byte);
  }
  return result;
}

}  // namespace vorlix
