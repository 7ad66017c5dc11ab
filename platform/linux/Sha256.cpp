// SPDX-License-Identifier: Apache-2.0
#include "platform/changes/Sha256.h"
#include <openssl/sha.h>

#include <array>

namespace vorlix {

std::string sha256(std::span<const uint8_t> bytes) {
  std::array<uint8_t, SHA256_DIGEST_LENGTH> digest = {};
  SHA256(bytes.data(), bytes.size(), digest.data());
  return hexadecimal(digest);
}

}  // namespace vorlix
