// SPDX-License-Identifier: Apache-2.0
#include "RunningHash.h"

#include <sys/types.h>
// libmd's headers need the types above.
#include <sha1.h>
#include <sha2.h>

namespace vorlix {

struct RunningHash::State {
  SHA1_CTX sha1;
  SHA2_CTX sha2;
};

std::optional<HashKind> hashKindOf(std::string_view name) {
  if (name == "sha1") return HashKind::sha1;
  if (name == "sha256") return HashKind::sha256;
  if (name == "sha512") return HashKind::sha512;
  return std::nullopt;
}

size_t hashSize(HashKind kind) {
  switch (kind) {
    case HashKind::sha1:
      return SHA1_DIGEST_LENGTH;
    case HashKind::sha256:
      return SHA256_DIGEST_LENGTH;
    case HashKind::sha512:
      return SHA512_DIGEST_LENGTH;
  }
  return 0;
}

RunningHash::RunningHash(HashKind kind) : kind_(kind), state_(std::make_unique<State>()) {
  restart();
}

RunningHash::~RunningHash() = default;

void RunningHash::restart() {
  switch (kind_) {
    case HashKind::sha1:
      return SHA1Init(&state_->sha1);
    case HashKind::sha256:
      return SHA256Init(&state_->sha2);
    case HashKind::sha512:
      return SHA512Init(&state_->sha2);
  }
}

void RunningHash::add(std::span<const uint8_t> bytes) {
  switch (kind_) {
    case HashKind::sha1:
      return SHA1Update(&state_->sha1, bytes.data(), bytes.size());
    case HashKind::sha256:
      return SHA256Update(&state_->sha2, bytes.data(), bytes.size());
    case HashKind::sha512:
      return SHA512Update(&state_->sha2, bytes.data(), bytes.size());
  }
}

std::vector<uint8_t> RunningHash::finish() {
  std::vector<uint8_t> hash(hashSize(kind_));
  switch (kind_) {
    case HashKind::sha1:
      SHA1Final(hash.data(), &state_->sha1);
      break;
    case HashKind::sha256:
      SHA256Final(hash.data(), &state_->sha2);
      break;
    case HashKind::sha512:
      SHA512Final(hash.data(), &state_->sha2);
      break;
  }
  return hash;
}

}  // namespace vorlix
