// SPDX-License-Identifier: Apache-2.0
#include "FatNames.h"

#include <algorithm>
#include <cstring>

#include <Vorlix/foundation/LittleEndian.h>
#include <Vorlix/foundation/Utf16.h>
#include <Vorlix/foundation/Utf8.h>

namespace vorlix {
namespace {

constexpr size_t kShortName = 11;
constexpr uint8_t kLowerBase = 0x08;
constexpr uint8_t kLowerExtension = 0x10;
constexpr uint8_t kLastPart = 0x40;
constexpr uint8_t kStandsForE5 = 0x05;
constexpr const char* kForbidden = "\"*/:<>?\\|";

// Code page 850 from 0x80 on. Source: Unicode's mapping tables (VENDORS/MICSFT/PC/CP850.TXT).
constexpr std::array<uint16_t, 128> kCodePage850 = {
    0x00C7, 0x00FC, 0x00E9, 0x00E2, 0x00E4, 0x00E0, 0x00E5, 0x00E7, 0x00EA, 0x00EB, 0x00E8, 0x00EF, 0x00EE,
    0x00EC, 0x00C4, 0x00C5, 0x00C9, 0x00E6, 0x00C6, 0x00F4, 0x00F6, 0x00F2, 0x00FB, 0x00F9, 0x00FF, 0x00D6,
    0x00DC, 0x00F8, 0x00A3, 0x00D8, 0x00D7, 0x0192, 0x00E1, 0x00ED, 0x00F3, 0x00FA, 0x00F1, 0x00D1, 0x00AA,
    0x00BA, 0x00BF, 0x00AE, 0x00AC, 0x00BD, 0x00BC, 0x00A1, 0x00AB, 0x00BB, 0x2591, 0x2592, 0x2593, 0x2502,
    0x2524, 0x00C1, 0x00C2, 0x00C0, 0x00A9, 0x2563, 0x2551, 0x2557, 0x255D, 0x00A2, 0x00A5, 0x2510, 0x2514,
    0x2534, 0x252C, 0x251C, 0x2500, 0x253C, 0x00E3, 0x00C3, 0x255A, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550,
    0x256C, 0x00A4, 0x00F0, 0x00D0, 0x00CA, 0x00CB, 0x00C8, 0x0131, 0x00CD, 0x00CE, 0x00CF, 0x2518, 0x250C,
    0x2588, 0x2584, 0x00A6, 0x00CC, 0x2580, 0x00D3, 0x00DF, 0x00D4, 0x00D2, 0x00F5, 0x00D5, 0x00B5, 0x00FE,
    0x00DE, 0x00DA, 0x00DB, 0x00D9, 0x00FD, 0x00DD, 0x00AF, 0x00B4, 0x00AD, 0x00B1, 0x2017, 0x00BE, 0x00B6,
    0x00A7, 0x00F7, 0x00B8, 0x00B0, 0x00A8, 0x00B7, 0x00B9, 0x00B3, 0x00B2, 0x25A0, 0x00A0,
};

bool isForbidden(uint32_t character) {
  return character < 0x20 || (character < 0x80 && std::strchr(kForbidden, static_cast<int>(character)) != nullptr);
}

uint32_t lowerLetter(uint32_t character) {
  if (character >= 'A' && character <= 'Z') return character + 0x20;
  return character >= 0xC0 && character <= 0xDE && character != 0xD7 ? character + 0x20 : character;
}

bool isIn(uint32_t character, uint32_t first, uint32_t last) {
  return character >= first && character <= last;
}

// Returns the upper-case letter of a block in which each upper-case letter is directly before its lower-case letter.
// Absent if the character is in no such block.
std::optional<uint32_t> upperOfPair(uint32_t character) {
  struct Block {
    uint32_t first;  // an upper-case letter
    uint32_t last;   // a lower-case one
  };
  constexpr Block kBlocks[] = {{0x100, 0x12F}, {0x132, 0x137}, {0x139, 0x148}, {0x14A, 0x177}, {0x179, 0x17E},
                               {0x460, 0x481}, {0x48A, 0x4BF}, {0x4C1, 0x4CE}, {0x4D0, 0x52F}};
  for (const Block& block : kBlocks) {
    if (isIn(character, block.first, block.last)) return character - (character - block.first) % 2;
  }
  return std::nullopt;
}

uint32_t upperLetter(uint32_t character) {
  if (character < 0x80) return isIn(character, 'a', 'z') ? character - 0x20 : character;
  if (isIn(character, 0xE0, 0xFE)) return character == 0xF7 ? character : character - 0x20;
  if (character == 0xFF) return 0x178;
  if (const auto upper = upperOfPair(character)) return *upper;
  if (character == 0x3AC) return 0x386;
  if (isIn(character, 0x3AD, 0x3AF)) return character - 0x25;
  if (character == 0x3C2) return 0x3A3;  // final sigma
  if (isIn(character, 0x3B1, 0x3CB)) return character - 0x20;
  if (character == 0x3CC) return 0x38C;
  if (isIn(character, 0x3CD, 0x3CE)) return character - 0x3F;
  if (isIn(character, 0x430, 0x44F)) return character - 0x20;
  return isIn(character, 0x450, 0x45F) ? character - 0x50 : character;
}

uint8_t sumOf(const uint8_t* shortName) {
  uint8_t sum = 0;
  for (size_t i = 0; i < kShortName; ++i) sum = static_cast<uint8_t>((sum << 7 | sum >> 1) + shortName[i]);
  return sum;
}

// Appends one part of a short name without its padding.
bool appendPart(std::string& name, const uint8_t* bytes, size_t count, bool lower) {
  while (count > 0 && bytes[count - 1] == ' ') --count;
  for (size_t i = 0; i < count; ++i) {
    const uint32_t character = bytes[i] < 0x80 ? bytes[i] : kCodePage850[bytes[i] - 0x80U];
    if (isForbidden(character) || character == '.') return false;
    appendUtf8(name, lower ? lowerLetter(character) : character);
  }
  return true;
}

// Absent for a name that no volume may have.
std::optional<std::string> longNameOf(std::u16string_view units) {
  std::string text;
  while (!units.empty()) {
    const auto character = takeCharacter(units);
    if (!character || isForbidden(*character)) return std::nullopt;
    appendUtf8(text, *character);
  }
  if (text == "." || text == "..") return std::nullopt;
  return text;
}

// Returns the two-byte UTF-8 character at `at`; 0 for anything else. All letters that foldedFatName() changes have one
// or two bytes.
uint32_t twoByteCharacter(const std::string& text, size_t at) {
  const auto first = static_cast<uint8_t>(text[at]);
  if (!isIn(first, 0xC2, 0xDF) || at + 1 == text.size()) return 0;
  const auto second = static_cast<uint8_t>(text[at + 1]);
  return (second & 0xC0U) == 0x80U ? (first & 0x1FU) << 6 | (second & 0x3FU) : 0;
}

}  // namespace

std::optional<std::string> shortNameIn(const uint8_t* entry) {
  std::array<uint8_t, kShortName> bytes;
  std::copy_n(entry, kShortName, bytes.begin());
  if (bytes[0] == kStandsForE5) bytes[0] = 0xE5;
  const uint8_t flags = entry[12];
  std::string name;
  if (bytes[0] == ' ' || !appendPart(name, bytes.data(), kFatBase, (flags & kLowerBase) != 0)) return std::nullopt;
  std::string extension;
  if (!appendPart(extension, bytes.data() + kFatBase, kShortName - kFatBase, (flags & kLowerExtension) != 0)) {
    return std::nullopt;
  }
  return extension.empty() ? name : name + "." + extension;
}

void LongNameReader::take(const uint8_t* entry) {
  const size_t number = entry[0] & 0x1FU;
  if ((entry[0] & kLastPart) != 0) {
    count_ = number;
    next_ = number == 0 || number > kMostEntries ? kNone : number;
    sum_ = entry[13];
  }
  if (next_ == kNone || next_ == 0 || number != next_ || entry[13] != sum_) {
    reset();
    return;
  }
  --next_;
  size_t unit = next_ * kUnitsInEntry;
  constexpr struct {
    size_t offset;
    size_t count;
  } kPlaces[] = {{1, 5}, {14, 6}, {28, 2}};
  for (const auto& place : kPlaces) {
    for (size_t i = 0; i < place.count; ++i) {
      units_[unit++] = littleEndian16(entry + place.offset + 2 * i);
    }
  }
}

LongNameReader::Outcome LongNameReader::finish(const uint8_t* entry, std::string& name) {
  const bool isWhole = next_ == 0 && sum_ == sumOf(entry);
  reset();
  if (!isWhole) return Outcome::none;
  const auto end = units_.begin() + static_cast<std::ptrdiff_t>(count_ * kUnitsInEntry);
  const auto length = static_cast<size_t>(std::find(units_.begin(), end, 0) - units_.begin());
  if (length == 0) return Outcome::none;
  const auto text = length > kLongestFatName ? std::nullopt : longNameOf({units_.data(), length});
  if (!text) return Outcome::invalid;
  name = *text;
  return Outcome::found;
}

std::string foldedFatName(const std::string& name) {
  std::string folded;
  for (size_t at = 0; at < name.size(); ++at) {
    const auto byte = static_cast<uint8_t>(name[at]);
    const uint32_t character = byte < 0x80 ? byte : twoByteCharacter(name, at);
    if (byte >= 0x80 && character == 0) {
      folded += name[at];
      continue;
    }
    if (byte >= 0x80) ++at;
    appendUtf8(folded, upperLetter(character));
  }
  return folded;
}

}  // namespace vorlix
