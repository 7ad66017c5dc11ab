// SPDX-License-Identifier: Apache-2.0
//
// The texts that go to and come from the companion program boot_store.
#include <Vorlix/BootStore.h>
#include <Vorlix/foundation/HexDigits.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

namespace vorlix {
namespace {

constexpr size_t kIdentifierLength = 38;

// Takes the word up to the next space from the start of `line`.
std::string_view takeWord(std::string_view& line) {
  const size_t end = std::min(line.find(' '), line.size());
  const std::string_view word = line.substr(0, end);
  line.remove_prefix(std::min(end + 1, line.size()));
  return word;
}

template <typename Number>
bool readNumber(std::string_view word, Number& number, int base) {
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number, base);
  return error == std::errc() && end == word.data() + word.size();
}

bool readBytes(std::string_view hex, std::vector<uint8_t>& bytes) {
  if (hex.size() % 2 != 0) return false;
  bytes.resize(hex.size() / 2);
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (!readNumber(hex.substr(2 * i, 2), bytes[i], 16)) return false;
  }
  return true;
}

bool readObject(std::string_view line, StoreObject& object) {
  object.identifier = takeWord(line);
  return object.identifier.size() == kIdentifierLength && readNumber(takeWord(line), object.type, 16) && line.empty();
}

bool readElement(std::string_view line, StoreElement& element) {
  return readNumber(takeWord(line), element.type, 16) && readNumber(takeWord(line), element.valueType, 10) &&
         readNumber(takeWord(line), element.offset, 10) && readBytes(takeWord(line), element.data) && line.empty();
}

std::string eightDigits(uint32_t number) {
  std::array<char, 9> text = {};
  std::snprintf(text.data(), text.size(), "%08x", number);
  return text.data();
}

}  // namespace

std::optional<std::vector<StoreObject>> parseStoreListing(std::string_view listing) {
  std::vector<StoreObject> objects;
  while (!listing.empty()) {
    const size_t end = listing.find('\n');
    if (end == std::string_view::npos) return std::nullopt;
    std::string_view line = listing.substr(0, end);
    listing.remove_prefix(end + 1);
    const std::string_view verb = takeWord(line);
    if (verb == "end" && line.empty()) return listing.empty() ? std::optional(objects) : std::nullopt;
    if (verb == "object") {
      if (!readObject(line, objects.emplace_back())) return std::nullopt;
    } else if (verb != "element" || objects.empty() || !readElement(line, objects.back().elements.emplace_back())) {
      return std::nullopt;
    }
  }
  return std::nullopt;
}

std::string storeEditLines(const std::vector<StoreEdit>& edits) {
  std::string lines;
  for (const StoreEdit& edit : edits) {
    switch (edit.kind) {
      case StoreEdit::Kind::removeObject:
        lines += "remove " + edit.object;
        break;
      case StoreEdit::Kind::setObject:
        lines += "object " + edit.object + " " + eightDigits(edit.type);
        break;
      case StoreEdit::Kind::removeElement:
        lines += "unset " + edit.object + " " + eightDigits(edit.type);
        break;
      case StoreEdit::Kind::setElement:
        lines += "set " + edit.object + " " + eightDigits(edit.type) + " " + std::to_string(edit.valueType) + " " +
                 hexText(edit.data);
        break;
    }
    lines += "\n";
  }
  return lines;
}

}  // namespace vorlix
