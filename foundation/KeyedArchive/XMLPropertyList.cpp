// SPDX-License-Identifier: Apache-2.0
#include "XMLPropertyList.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace vorlix {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::string_view kRoot = "plist";
constexpr std::string_view kContainers[] = {"dict", "array"};
constexpr std::string_view kLeaves[] = {"key", "string", "data", "date", "integer", "real", "true", "false"};
constexpr size_t kElementsOfAReference = 3;

template <size_t count>
bool isOneOf(std::string_view name, const std::string_view (&names)[count]) {
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Accepts decimal numbers and, after 0x, hexadecimal ones, with or without a sign. A leading 0 is refused: the parser
// would read the number as octal.
bool fitsSigned64(std::string_view text) {
  text = trimmed(text);
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    text.remove_prefix(2);
    base = 16;
  } else if (text.size() > 1 && text.front() == '0') {
    return false;
  }
  uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (error != std::errc() || end != text.data() + text.size()) return false;
  constexpr auto kLargest = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  return magnitude <= (negative ? kLargest + 1 : kLargest);
}

class Survey {
 public:
  Survey(std::string_view file, const PropertyListLimits& limits) : file_(file), limits_(limits) {}

  std::optional<std::string> result() {
    if (file_.size() > limits_.bytes || file_.find('\0') != std::string_view::npos) return std::nullopt;
    while (takeBlanks() < file_.size()) {
      if (!takeMarkup()) return std::nullopt;
    }
    if (!complete_) return std::nullopt;
    return repaired_ + std::string(file_.substr(copied_));
  }

 private:
  size_t takeBlanks() {
    at_ = std::min(file_.find_first_not_of(kBlanks, at_), file_.size());
    return at_;
  }

  bool comes(std::string_view text) const { return file_.substr(at_).starts_with(text); }

  // Moves behind the next `end`.
  bool skipTo(std::string_view end) {
    const size_t found = file_.find(end, at_);
    if (found == std::string_view::npos) return false;
    at_ = found + end.size();
    return true;
  }

  bool takeMarkup() {
    if (comes("<!--")) {
      at_ += 4;
      return skipTo("-->");
    }
    if (comes("<?")) return open_.empty() && skipTo("?>");
    if (comes("<!DOCTYPE")) return takeDocumentType();
    if (comes("</")) return takeEnd();
    return comes("<") && takeElement();
  }

  // A document type is accepted only before the root and without internal declarations.
  bool takeDocumentType() {
    const size_t end = file_.find('>', at_);
    if (complete_ || !open_.empty() || end == std::string_view::npos) return false;
    const std::string_view type = file_.substr(at_ + 1, end - at_ - 1);
    at_ = end + 1;
    return type.find_first_of("<[") == std::string_view::npos;
  }

  bool takeEnd() {
    if (open_.empty()) return false;
    const std::string tag = "</" + std::string(open_.back()) + ">";
    if (!comes(tag)) return false;
    at_ += tag.size();
    open_.pop_back();
    complete_ = open_.empty();
    return true;
  }

  bool takeElement() {
    const size_t start = at_;
    const size_t end = file_.find('>', at_);
    if (end == std::string_view::npos || complete_) return false;
    std::string_view tag = file_.substr(at_ + 1, end - at_ - 1);
    at_ = end + 1;
    const bool empty = tag.ends_with('/');
    if (empty) tag.remove_suffix(1);
    const std::string_view name = tag.substr(0, tag.find_first_of(kBlanks));
    const std::string_view rest = trimmed(tag.substr(name.size()));
    if (open_.empty()) {
      open_.push_back(name);
      return name == kRoot && !empty && rest.find('<') == std::string_view::npos;
    }
    const bool container = isOneOf(name, kContainers);
    if (!rest.empty() || (!container && !isOneOf(name, kLeaves))) return false;
    if (open_.size() == 1 && std::exchange(hasValue_, true)) return false;
    if (++elements_ > limits_.values * kElementsOfAReference) return false;
    if (empty) return true;
    if (!container) return takeContent(start, name);
    open_.push_back(name);
    return open_.size() <= limits_.depth + 1;  // the root element is not a value
  }

  bool takeContent(size_t start, std::string_view name) {
    const size_t end = std::min(file_.find('<', at_), file_.size());
    const std::string_view content = file_.substr(at_, end - at_);
    at_ = end;
    const std::string tag = "</" + std::string(name) + ">";
    if (!comes(tag)) return false;
    at_ += tag.size();
    if (name == "integer" && !fitsSigned64(content)) {
      repaired_ += file_.substr(copied_, start - copied_);
      repaired_ += "<date>2001-01-01T00:00:00Z</date>";
      copied_ = at_;
    }
    return true;
  }

  std::string_view file_;
  PropertyListLimits limits_;
  size_t at_ = 0;
  std::vector<std::string_view> open_;
  bool hasValue_ = false;
  bool complete_ = false;
  size_t elements_ = 0;
  std::string repaired_;
  size_t copied_ = 0;  // how much of the file `repaired_` covers
};

}  // namespace

std::optional<std::string> boundedXMLPropertyList(std::string_view file, const PropertyListLimits& limits) {
  return Survey(file, limits).result();
}

}  // namespace vorlix
