// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/Base64.h>

#include <cstddef>
#include <cstdint>

namespace vorlix {
namespace {

constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string encodeBase64(std::string_view bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t group = 0;
    for (size_t j = 0; j < 3; ++j) group = group << 8 | (i + j < bytes.size() ? static_cast<uint8_t>(bytes[i + j]) : 0);
    for (size_t j = 0; j < 4; ++j) text += i + j <= bytes.size() ? kDigits[group >> (18 - 6 * j) & 63] : '=';
  }
  return text;
}

std::optional<std::string> decodeBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::string bytes;
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    const size_t padding = !last || text[i + 3] != '=' ? 0 : text[i + 2] == '=' ? 2 : 1;
    uint32_t group = 0;
    for (size_t j = 0; j < 4; ++j) {
      const size_t digit = j < 4 - padding ? kDigits.find(text[i + j]) : 0;
      if (digit == std::string_view::npos) return std::nullopt;
      group = group << 6 | static_cast<uint32_t>(digit);
    }
    for (size_t j = 0; j < 3 - padding; ++j) bytes += static_cast<char>(group >> (16 - 8 * j) & 0xFF);
  }
  return bytes;
}

}  // namespace vorlix
