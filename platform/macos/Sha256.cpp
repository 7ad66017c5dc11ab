// SPDX-License-Identifier: Apache-2.0
#include "platform/changes/Sha256.h"
#include <CommonCrypto/CommonDigest.h>

#include <array>

namespace vorlix {

std::string sha256(std::span<const uint8_t> bytes) {
  std::array<uint8_t, CC_SHA256_DIGEST_LENGTH> digest = {};
  CC_SHA256(bytes.data(), static_cast<CC_LONG>(bytes.size()), digest.data());
  return hexadecimal(digest);
}

}  // namespace vorlix
