// SPDX-License-Identifier: Apache-2.0
/// @file
/// Text with attributes, such as fonts and links, on stretches of it.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Value.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// Text in runs, each with its attributes by name.
///
/// The runs lie one after the other from the start of the text to its end; text without attributes is a run with none.
/// Places and lengths count UTF-16 code units, as archives do: one for a character, two for one beyond U+FFFF. Bytes of
/// the text that are no UTF-8 are replaced by U+FFFD.
class VORLIX_EXPORT AttributedString {
 public:
  struct Run {
    size_t location = 0;
    size_t length = 0;
    std::shared_ptr<const Dictionary> attributes;  ///< never null; shared and not changed any more
  };

  AttributedString() = default;

  /// One run over the whole text; none if the text is empty.
  explicit AttributedString(std::string text, Dictionary attributes = {});

  /// Text with runs of these lengths and attributes; their locations are not looked at. Absent if the lengths do not
  /// add up to the text's or one of them is 0.
  static std::optional<AttributedString> withRuns(std::string text, std::vector<Run> runs);

  /// Puts text at the end. It continues the last run if its attributes are the same.
  void append(const std::string& text, Dictionary attributes = {});

  /// The plain characters.
  const std::string& string() const { return text_; }

  /// UTF-16 code units of the text.
  size_t length() const;

  const std::vector<Run>& runs() const { return runs_; }

  /// The same text, with the same attributes on the same stretches. Dictionaries within attributes count as the same
  /// only if they are one.
  bool operator==(const AttributedString& other) const;

 private:
  std::string text_;
  std::vector<Run> runs_;
};

}  // namespace vorlix
