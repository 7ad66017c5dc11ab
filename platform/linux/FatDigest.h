// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace vorlix {

/// A sum that tells whether bytes have changed. Each word goes in by a step that can be undone, so that a change of one
/// word always changes the sum. It is no protection against bytes that were made to have the same one.
class FatDigest {
 public:
  void add(const uint8_t* bytes, size_t count) {
    for (size_t at = 0; at < count; at += 8) addWord(littleEndian(bytes + at, std::min<size_t>(8, count - at)));
  }

  void addWord(uint64_t word) {
    value_ = (value_ ^ word) * 0x9E3779B97F4A7C15U;
    value_ ^= value_ >> 32;
  }

  uint64_t value() const { return value_; }

 private:
  uint64_t value_ = 0x6A09E667F3BCC909U;
};

}  // namespace vorlix
