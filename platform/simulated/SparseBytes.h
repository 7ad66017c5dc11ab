// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>

namespace vorlix {

/// The bytes of a disk. Only written pages take memory, so a disk of several terabytes costs nothing.
class SparseBytes {
 public:
  void read(uint64_t offset, uint8_t* to, size_t count) const {
    forEachPage(offset, count, [&](uint64_t page, size_t inPage, size_t done, size_t part) {
      const auto found = pages_.find(page);
      if (found == pages_.end()) {
        std::fill_n(to + done, part, uint8_t{0});
      } else {
        std::copy_n(found->second.begin() + static_cast<std::ptrdiff_t>(inPage), part, to + done);
      }
    });
  }

  void write(uint64_t offset, const uint8_t* from, size_t count) {
    forEachPage(offset, count, [&](uint64_t page, size_t inPage, size_t done, size_t part) {
      std::copy_n(from + done, part, pages_[page].begin() + static_cast<std::ptrdiff_t>(inPage));
    });
  }

 private:
  static constexpr size_t kPageSize = 4096;

  template <typename Visit>
  static void forEachPage(uint64_t offset, size_t count, Visit visit) {
    for (size_t done = 0; done < count;) {
      const size_t inPage = static_cast<size_t>((offset + done) % kPageSize);
      const size_t part = std::min(kPageSize - inPage, count - done);
      visit((offset + done) / kPageSize, inPage, done, part);
      done += part;
    }
  }

  std::map<uint64_t, std::array<uint8_t, kPageSize>> pages_;
};

}  // namespace vorlix
