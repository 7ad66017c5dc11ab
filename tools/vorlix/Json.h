// SPDX-License-Identifier: Apache-2.0
//
// The JSON that commands print.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace vorlix::tool {

/// The version of the shape of every object that a command prints, its member "version". Members may be added within a
/// version; docs/json/ has a schema for each command.
constexpr int kJsonVersion = 1;

/// A value of JSON: null, boolean, number, text, array or object. Objects keep the order in which members were
/// added.
class Json {
 public:
  using Member = std::pair<std::string, Json>;
  using Members = std::vector<Member>;
  using Elements = std::vector<Json>;
  using Value = std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string, Elements, Members>;

  Json() = default;  ///< null
  Json(std::string text) : value_(std::move(text)) {}
  Json(const char* text) : value_(std::string(text)) {}

  /// From `bool` itself: pointers would become true otherwise.
  template <std::same_as<bool> Boolean>
  Json(Boolean value) : value_(value) {}

  template <std::integral Number>
  requires(!std::same_as<Number, bool>) Json(Number number) {
    if constexpr (std::is_signed_v<Number>) {
      value_ = static_cast<int64_t>(number);
    } else {
      value_ = static_cast<uint64_t>(number);
    }
  }

  template <std::floating_point Number>
  Json(Number number) : value_(static_cast<double>(number)) {}

  /// Null if the value is absent.
  template <typename Held>
  Json(const std::optional<Held>& value) {
    if (value) *this = Json(*value);
  }

  static Json object(std::initializer_list<Member> members = {}) { return Json(Members(members)); }
  static Json array() { return Json(Elements()); }

  /// Adds a member to an object, which has none of that name.
  void add(std::string name, Json value) { std::get<Members>(value_).emplace_back(std::move(name), std::move(value)); }

  /// Adds the members of another object, none of which this one has.
  void addMembers(const Json& other) {
    Members& own = std::get<Members>(value_);
    own.insert(own.end(), other.members().begin(), other.members().end());
  }

  /// Adds an element to an array.
  void append(Json value) { std::get<Elements>(value_).push_back(std::move(value)); }

  bool isNull() const { return std::holds_alternative<std::monostate>(value_); }
  const bool* boolean() const { return std::get_if<bool>(&value_); }             ///< null if it is none
  const std::string* text() const { return std::get_if<std::string>(&value_); }  ///< likewise
  const Members& members() const { return std::get<Members>(value_); }           ///< of an object
  const Value& value() const { return value_; }

  /// Prints the value on standard output with an indent of two spaces, and a line feed. Text need not be UTF-8, because
  /// it may come from a disk; what is not becomes U+FFFD.
  void print() const;

  /// Prints the value likewise, but on one line.
  void printLine() const;

 private:
  explicit Json(Members members) : value_(std::move(members)) {}
  explicit Json(Elements elements) : value_(std::move(elements)) {}

  Value value_;
};

/// Null for an empty text, which stands for what is not known.
inline Json knownText(const std::string& text) {
  return text.empty() ? std::optional<std::string>() : std::optional<std::string>(text);
}

}  // namespace vorlix::tool
