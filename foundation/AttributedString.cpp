// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/AttributedString.h>
#include <Vorlix/foundation/Utf8.h>

#include <algorithm>
#include <utility>

namespace vorlix {
namespace {

bool sameAttributes(const Dictionary& left, const Dictionary& right) {
  return left.values() == right.values();
}

}  // namespace

AttributedString::AttributedString(std::string text, Dictionary attributes) {
  append(text, std::move(attributes));
}

std::optional<AttributedString> AttributedString::withRuns(std::string text, std::vector<Run> runs) {
  AttributedString result;
  result.text_ = repairedUtf8(text);
  const size_t length = utf16Length(result.text_);
  size_t covered = 0;
  for (Run& run : runs) {
    if (run.length == 0 || run.length > length - covered) return std::nullopt;
    run.location = std::exchange(covered, covered + run.length);
    if (run.attributes == nullptr) run.attributes = std::make_shared<Dictionary>();
  }
  if (covered != length) return std::nullopt;
  result.runs_ = std::move(runs);
  return result;
}

void AttributedString::append(const std::string& text, Dictionary attributes) {
  if (text.empty()) return;
  const std::string added = repairedUtf8(text);
  const size_t length = utf16Length(added);
  if (!runs_.empty() && sameAttributes(*runs_.back().attributes, attributes)) {
    runs_.back().length += length;
  } else {
    runs_.push_back({this->length(), length, std::make_shared<Dictionary>(std::move(attributes))});
  }
  text_ += added;
}

size_t AttributedString::length() const {
  return runs_.empty() ? 0 : runs_.back().location + runs_.back().length;
}

bool AttributedString::operator==(const AttributedString& other) const {
  return text_ == other.text_ && std::equal(runs_.begin(), runs_.end(), other.runs_.begin(), other.runs_.end(),
                                            [](const Run& one, const Run& counterpart) {
                                              return one.length == counterpart.length &&
                                                     sameAttributes(*one.attributes, *counterpart.attributes);
                                            });
}

}  // namespace vorlix
