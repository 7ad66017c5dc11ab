// SPDX-License-Identifier: Apache-2.0
//
// Names on FAT volumes, as folders store them and as UTF-8.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace vorlix {

inline constexpr size_t kFatEntrySize = 32;
inline constexpr size_t kFatBase = 8;                               ///< bytes of a short name before its extension
inline constexpr uint8_t kFatEndOfFolder = 0x00;                    ///< first byte of the entry after the last one
inline constexpr uint8_t kFatDeleted = 0xE5;                        ///< first byte of a deleted entry
inline constexpr size_t kLargestFatFolder = 65536 * kFatEntrySize;  ///< bytes
inline constexpr size_t kLongestFatName = 255;                      ///< UTF-16 units

/// Returns the short name in an entry: code page 850, in lower case if byte 12 says so. Absent if it is invalid.
std::optional<std::string> shortNameIn(const uint8_t* entry);

/// Collects a long name from the entries before the one that it belongs to.
class LongNameReader {
 public:
  void take(const uint8_t* entry);
  void reset() { next_ = kNone; }

  enum class Outcome { none, found, invalid };

  /// Returns the collected name of `entry`, if it is complete and has the checksum of the short name in `entry`.
  Outcome finish(const uint8_t* entry, std::string& name);

 private:
  static constexpr size_t kNone = static_cast<size_t>(-1);
  static constexpr size_t kUnitsInEntry = 13;
  static constexpr size_t kMostEntries = 20;

  std::array<char16_t, kUnitsInEntry* kMostEntries> units_ = {};
  size_t count_ = 0;     // entries
  size_t next_ = kNone;  // number of entries that are missing
  uint8_t sum_ = 0;
};

/// Returns a name or path in the form in which names are compared: letters of ASCII, Latin-1, Latin Extended-A, Greek
/// and Cyrillic in upper case. Other letters with two cases (Armenian, Georgian, Latin Extended-B and Additional,
/// full-width ones) do not change, and neither do bytes that are not UTF-8.
std::string foldedFatName(const std::string& name);

}  // namespace vorlix
