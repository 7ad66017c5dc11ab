// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/Sha256.h>
#include <sha2.h>

#include <array>

namespace vorlix {

std::string sha256(std::span<const uint8_t> bytes) {
  std::array<char, SHA256_DIGEST_STRING_LENGTH> text = {};
  return SHA256Data(bytes.data(), bytes.size(), text.data());
}

}  // namespace vorlix
