// SPDX-License-Identifier: Apache-2.0
//
// Hashes of bytes that come one run after the other. For checks against accidents; nothing secret goes through them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace vorlix {

enum class HashKind { sha1, sha256, sha512 };

/// The kind of a name in lower case, like "sha256". Absent for others.
std::optional<HashKind> hashKindOf(std::string_view name);

/// How many bytes a hash has.
size_t hashSize(HashKind kind);

class RunningHash {
 public:
  explicit RunningHash(HashKind kind);
  ~RunningHash();
  RunningHash(const RunningHash&) = delete;
  RunningHash& operator=(const RunningHash&) = delete;

  /// Forgets what was added.
  void restart();

  void add(std::span<const uint8_t> bytes);

  /// The hash of what was added since the start, which is over with this call.
  std::vector<uint8_t> finish();

 private:
  struct State;

  HashKind kind_;
  std::unique_ptr<State> state_;
};

}  // namespace vorlix
