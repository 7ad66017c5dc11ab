// SPDX-License-Identifier: Apache-2.0
#include "Text.h"

#include <Vorlix/foundation/Utf16.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <utility>

namespace vorlix::tool {
namespace {

struct NamedGPTType {
  const char* guid;
  const char* name;
};

constexpr NamedGPTType kGPTTypes[] = {
    {"C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "EFI System"},
    {"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft basic data"},
    {"E3C9E316-0B5C-4DB8-817D-F92DF00215AE", "Microsoft reserved"},
    {"DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", "Windows recovery"},
    {"7C3457EF-0000-11AA-AA11-00306543ECAC", "Apple APFS"},
    {"48465300-0000-11AA-AA11-00306543ECAC", "Apple HFS+"},
    {"426F6F74-0000-11AA-AA11-00306543ECAC", "Apple Boot"},
    {"53746F72-6167-11AA-AA11-00306543ECAC", "Apple Core Storage"},
    {"52414944-0000-11AA-AA11-00306543ECAC", "Apple RAID"},
    {"55465300-0000-11AA-AA11-00306543ECAC", "Apple UFS"},
    {"0FC63DAF-8483-4772-8E79-3D69D8477DE4", "Linux file system"},
    {"0657FD6D-A4AB-43C4-84E5-0933C84B4F4F", "Linux swap"},
    {"E6D6D379-F507-44C2-A23C-238F2A3DF928", "Linux LVM"},
};

struct NamedMBRType {
  uint8_t type;
  const char* name;
};

constexpr NamedMBRType kMBRTypes[] = {
    {0x00, "empty"},
    {0x01, "FAT12"},
    {0x04, "FAT16"},
    {0x05, "extended"},
    {0x06, "FAT16"},
    {0x07, "NTFS or exFAT"},
    {0x0B, "FAT32"},
    {0x0C, "FAT32"},
    {0x0E, "FAT16"},
    {0x0F, "extended"},
    {0x27, "Windows recovery"},
    {0x82, "Linux swap"},
    {0x83, "Linux"},
    {0x8E, "Linux LVM"},
    {0xA8, "Apple UFS"},
    {0xAB, "Apple Boot or RAID"},
    {0xAC, "Apple Core Storage"},
    {0xAF, "Apple HFS+"},
    {0xEE, "GPT protective"},
    {0xEF, "EFI System"},
    {0xFF, "Apple APFS"},
};

// Counts characters, not bytes: continuation bytes of UTF-8 take no column.
size_t width(const std::string& text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char byte) { return (static_cast<uint8_t>(byte) & 0xC0) != 0x80; }));
}

constexpr size_t kNarrowestColumn = 5;

// Divides text into lines of at most `limit` characters, at spaces where there are any.
std::vector<std::string> wrapped(std::string text, size_t limit) {
  std::vector<std::string> lines;
  while (width(text) > limit) {
    size_t end = 0;
    for (size_t count = 0; count <= limit; ++end) {
      if ((static_cast<uint8_t>(text[end]) & 0xC0) != 0x80 && ++count > limit) break;
    }
    const size_t space = text.rfind(' ', end);
    const bool hasSpace = space != std::string::npos && space > 0;
    lines.push_back(text.substr(0, hasSpace ? space : end));
    text.erase(0, hasSpace ? space + 1 : end);
  }
  lines.push_back(std::move(text));
  return lines;
}

// Narrows columns of text until the table fits the terminal, if there is one. @return the space between columns.
size_t fit(std::vector<size_t>& widths, const std::string& alignment) {
  constexpr size_t kGap = 2;
  const std::optional<size_t> available = outputWidth();
  size_t total = widths.empty() ? 0 : (widths.size() - 1) * kGap;
  for (const size_t column : widths) total += column;
  if (!available || total <= *available) return kGap;
  total -= widths.size() - 1;
  while (total > *available) {
    size_t widest = widths.size();
    for (size_t i = 0; i < widths.size(); ++i) {
      const bool isNarrower = alignment[i] != 'l' || widths[i] <= kNarrowestColumn;
      if (!isNarrower && (widest == widths.size() || widths[i] > widths[widest])) widest = i;
    }
    if (widest == widths.size()) break;
    --widths[widest];
    --total;
  }
  return 1;
}

std::string tableRowText(const std::vector<std::string>& row, const std::vector<size_t>& widths,
                         const std::string& alignment, size_t gap, std::optional<Color> color) {
  std::vector<std::vector<std::string>> cells;
  size_t height = 1;
  for (size_t i = 0; i < row.size(); ++i) {
    cells.push_back(wrapped(row[i], std::max<size_t>(widths[i], 1)));
    height = std::max(height, cells.back().size());
  }
  std::string text;
  for (size_t number = 0; number < height; ++number) {
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) {
      const std::string cell = number < cells[i].size() ? cells[i][number] : "";
      const std::string padding(widths[i] - width(cell), ' ');
      const std::string shown = color && i + 1 == cells.size() && !cell.empty() ? colored(cell, *color) : cell;
      line += std::string(i == 0 ? 0 : gap, ' ') + (alignment[i] == 'r' ? padding + shown : shown + padding);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  return text;
}

}  // namespace

std::string shortSizeText(uint64_t bytes) {
  constexpr std::array<const char*, 6> kUnits = {"bytes", "KB", "MB", "GB", "TB", "PB"};
  auto value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1000 && unit + 1 < kUnits.size()) {
    value /= 1000;
    ++unit;
  }
  std::array<char, 32> text;
  std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.2f %s", value, kUnits[unit]);
  return text.data();
}

std::string sizeText(uint64_t bytes) {
  return shortSizeText(bytes) + " (" + std::to_string(bytes) + " bytes)";
}

std::string binarySizeText(uint64_t bytes) {
  constexpr std::array<char, 7> kUnits = {'B', 'K', 'M', 'G', 'T', 'P', 'E'};
  size_t unit = 0;
  while (unit + 1 < kUnits.size() && bytes >> (10 * (unit + 1)) != 0) ++unit;
  uint64_t whole = bytes >> (10 * unit);
  const uint64_t rest = unit == 0 ? 0 : (bytes >> (10 * (unit - 1))) & 1023;
  uint64_t tenths = (rest * 10 + 512) / 1024;
  if (tenths == 10) {
    ++whole;
    tenths = 0;
  }
  if (whole == 1024 && unit + 1 < kUnits.size()) {
    whole = 1;
    ++unit;
  }
  return std::to_string(whole) + (tenths == 0 ? "" : "." + std::to_string(tenths)) + kUnits[unit];
}

std::string hexDigits(uint64_t value, int digits) {
  std::array<char, 20> text;
  std::snprintf(text.data(), text.size(), "%0*llX", digits, static_cast<unsigned long long>(value));
  return text.data();
}

std::string hexByte(uint8_t byte) {
  return hexDigits(byte, 2);
}

std::string guidText(const uint8_t* guid) {
  std::array<char, 40> text = {};
  ConvertToGUID(guid, text.data());
  return text.data();
}

std::string gptTypeName(const std::string& guid) {
  for (const NamedGPTType& type : kGPTTypes) {
    if (guid == type.guid) return type.name;
  }
  return "unknown";
}

std::string mbrTypeName(uint8_t type) {
  for (const NamedMBRType& named : kMBRTypes) {
    if (type == named.type) return named.name;
  }
  return "unknown";
}

std::string partitionName(const GPTEntry& entry) {
  const std::u16string units = utf16Units(entry.name);
  return utf8Of(std::u16string_view(units).substr(0, units.find(u'\0')));
}

std::string printable(const std::string& text) {
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<uint8_t>(text[i]);
    const bool c1 = byte == 0xC2 && i + 1 < text.size() && static_cast<uint8_t>(text[i + 1]) < 0xA0;
    if (c1) ++i;
    result.push_back(byte < 0x20 || byte == 0x7F || c1 ? '?' : text[i]);
  }
  return result;
}

std::string printableLines(const std::string& text) {
  std::string result;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = std::min(text.find_first_of("\n\t", start), text.size());
    result += printable(text.substr(start, end - start));
    if (end < text.size()) result += text[end];
    start = end + 1;
  }
  return result;
}

std::string tableText(const std::vector<std::vector<std::string>>& rows, const std::string& alignment,
                      const std::vector<std::optional<Color>>& colors) {
  std::vector<size_t> widths(alignment.size());
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
  }
  const size_t gap = fit(widths, alignment);
  std::string text;
  for (size_t i = 0; i < rows.size(); ++i) {
    text += tableRowText(rows[i], widths, alignment, gap, i < colors.size() ? colors[i] : std::nullopt);
  }
  return text;
}

std::string hangingText(const std::string& text, size_t indent) {
  const std::optional<size_t> available = outputWidth();
  if (!available || *available < indent + kNarrowestColumn) return text;
  std::string result;
  for (const std::string& line : wrapped(text, *available - indent)) {
    result += (result.empty() ? "" : "\n" + std::string(indent, ' ')) + line;
  }
  return result;
}

}  // namespace vorlix::tool
