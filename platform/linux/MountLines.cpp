// SPDX-License-Identifier: Apache-2.0
#include "MountLines.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <charconv>
#include <system_error>

namespace vorlix {
namespace {

std::string_view takeUntil(std::string_view& text, char end) {
  const std::string_view piece = text.substr(0, text.find(end));
  text.remove_prefix(std::min(piece.size() + 1, text.size()));
  return piece;
}

template <typename Number>
bool isNumber(std::string_view text, Number& number) {
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && stop == text.data() + text.size();
}

// Three octal digits after a backslash stand for a byte.
std::string withoutEscapes(std::string_view text) {
  constexpr size_t kDigits = 3;
  std::string plain;
  while (!text.empty()) {
    unsigned value = 0;
    const std::string_view digits = text.substr(1, kDigits);
    const auto isOctal = [](char digit) { return digit >= '0' && digit <= '7'; };
    if (text.front() == '\\' && digits.size() == kDigits && std::all_of(digits.begin(), digits.end(), isOctal)) {
      std::from_chars(digits.data(), digits.data() + kDigits, value, 8);
      plain += static_cast<char>(value);
      text.remove_prefix(1 + kDigits);
    } else {
      plain += text.front();
      text.remove_prefix(1);
    }
  }
  return plain;
}

// The fields stand between single spaces, so that an empty source is a field, too.
std::optional<MountLine> mountLine(std::string_view text) {
  constexpr std::string_view kRemoved = "//deleted";
  MountLine line;
  unsigned first = 0;
  unsigned second = 0;
  if (!isNumber(takeUntil(text, ' '), line.id)) return std::nullopt;
  takeUntil(text, ' ');  // the number of the mount below
  std::string_view number = takeUntil(text, ' ');
  if (!isNumber(takeUntil(number, ':'), first) || !isNumber(number, second)) return std::nullopt;
  line.number = makedev(first, second);
  line.root = withoutEscapes(takeUntil(text, ' '));
  line.path = withoutEscapes(takeUntil(text, ' '));
  if (line.path.ends_with(kRemoved)) line.path.resize(line.path.size() - kRemoved.size());
  line.mountOptions = takeUntil(text, ' ');
  while (takeUntil(text, ' ') != "-") {  // fields of the mount's propagation
    if (text.empty()) return std::nullopt;
  }
  line.fileSystem = withoutEscapes(takeUntil(text, ' '));
  line.source = withoutEscapes(takeUntil(text, ' '));
  line.volumeOptions = text;
  if (line.path.empty() || line.fileSystem.empty()) return std::nullopt;
  return line;
}

}  // namespace

std::vector<MountLine> mountLines(std::string_view text) {
  std::vector<MountLine> lines;
  while (!text.empty()) {
    if (std::optional<MountLine> line = mountLine(takeUntil(text, '\n'))) lines.push_back(std::move(*line));
  }
  return lines;
}

std::optional<std::string> mountOption(std::string_view options, std::string_view name) {
  while (!options.empty()) {
    std::string_view value = takeUntil(options, ',');
    if (takeUntil(value, '=') == name) return withoutEscapes(value);
  }
  return std::nullopt;
}

std::vector<std::string> deviceFileSystems(std::string_view text) {
  std::vector<std::string> names;
  while (!text.empty()) {
    std::string_view line = takeUntil(text, '\n');
    if (takeUntil(line, '\t').empty() && !line.empty()) names.emplace_back(line);
  }
  return names;
}

}  // namespace vorlix
