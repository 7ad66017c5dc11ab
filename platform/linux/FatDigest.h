// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace vorlix {

/// A checksum that shows whether bytes have changed. Each word enters by a reversible step, so a change of one word
/// always changes the checksum. It does not protect against bytes that were chosen to have the same checksum.
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
