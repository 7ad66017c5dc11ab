// SPDX-License-Identifier: Apache-2.0
#include "platform/posix/blockcoding/Hashing.h"

#include <sha2.h>

#include <new>

namespace vorlix {

void* newBlockHash() {
  auto* const hash = new (std::nothrow) SHA2_CTX;
  if (hash != nullptr) SHA256Init(hash);
  return hash;
}

void freeBlockHash(void* hash) {
  delete static_cast<SHA2_CTX*>(hash);
}

void addToBlockHash(void* hash, const uint8_t* bytes, size_t count) {
  SHA256Update(static_cast<SHA2_CTX*>(hash), bytes, count);
}

void finishBlockHash(void* hash, uint8_t* digest) {
  auto* const context = static_cast<SHA2_CTX*>(hash);
  SHA256Final(digest, context);
  SHA256Init(context);
}

}  // namespace vorlix
