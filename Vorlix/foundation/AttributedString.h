// SPDX-License-Identifier: Apache-2.0
/// @file
/// Text whose parts have attributes, such as fonts and links.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Value.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// Text that consists of runs, each with named attributes.
///
/// The runs cover the whole text in order; text without attributes is a run with none. Locations and lengths count
/// UTF-16 code units, as archives do: one for a character, two for a character beyond U+FFFF. U+FFFD replaces bytes
/// that are not UTF-8.
class VORLIX_EXPORT AttributedString {
 public:
  /// A part of the text with one set of attributes.
  struct Run {
    size_t location = 0;                           ///< UTF-16 code units from the start of the text
    size_t length = 0;                             ///< UTF-16 code units
    std::shared_ptr<const Dictionary> attributes;  ///< never null; shared and immutable
  };

  AttributedString() = default;

  /// Makes one run of the whole text, or no run if the text is empty.
  explicit AttributedString(std::string text, Dictionary attributes = {});

  /// Returns text with runs of these lengths and attributes; their locations are ignored. Absent if a length is 0 or if
  /// the lengths do not add up to the length of the text.
  static std::optional<AttributedString> withRuns(std::string text, std::vector<Run> runs);

  /// Appends text. It extends the last run if that has the same attributes.
  void append(const std::string& text, Dictionary attributes = {});

  /// Returns the text without attributes.
  const std::string& string() const { return text_; }

  /// Returns the length of the text in UTF-16 code units.
  size_t length() const;

  /// Returns the runs in order. They cover the text without gaps; an empty text has none.
  const std::vector<Run>& runs() const { return runs_; }

  /// Compares the text, the runs and their attributes. Dictionaries inside attributes are compared by identity.
  bool operator==(const AttributedString& other) const;

 private:
  std::string text_;
  std::vector<Run> runs_;
};

}  // namespace vorlix
