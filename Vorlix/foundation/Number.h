// SPDX-License-Identifier: Apache-2.0
/// @file
/// A number as a value.
#pragma once

#include <bit>
#include <cstdint>
#include <limits>
#include <variant>

namespace vorlix {

/// A boolean, an integer or a floating-point number. It knows which of these it was made from and converts to all of
/// them. Two numbers are equal if their kinds and values are.
class Number {
 public:
  /// @{
  /// Returns a number of this kind. Numbers of different kinds are never equal.
  static Number numberWithBool(bool value) { return Number(value); }
  static Number numberWithLongLong(int64_t value) { return Number(value); }
  static Number numberWithDouble(double value) { return Number(value); }
  /// @}

  bool isBool() const { return std::holds_alternative<bool>(value_); }      ///< made of a boolean
  bool isDouble() const { return std::holds_alternative<double>(value_); }  ///< made of a floating-point number

  /// Returns false for zero and false, true for everything else.
  bool boolValue() const {
    return std::visit([](auto value) { return value != decltype(value){}; }, value_);
  }

  /// Returns the number as an integer. A floating-point number is rounded towards zero and limited to the range; NaN
  /// becomes 0.
  int64_t longLongValue() const {
    const double* const real = std::get_if<double>(&value_);
    if (real == nullptr) return std::holds_alternative<bool>(value_) ? boolValue() : std::get<int64_t>(value_);
    constexpr double kBeyond = 9223372036854775808.0;  // 2^63
    if (*real != *real) return 0;
    if (*real >= kBeyond) return std::numeric_limits<int64_t>::max();
    if (*real < -kBeyond) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(*real);
  }

  /// Returns the value as a floating-point number; a boolean is 0 or 1.
  double doubleValue() const {
    return std::visit([](auto value) { return static_cast<double>(value); }, value_);
  }

  friend bool operator==(const Number&, const Number&) = default;  ///< compares kind and value
  /// An order for containers: by kind, then by value. Floating-point numbers are compared by their bits, so that NaN
  /// has a place as well.
  friend bool operator<(const Number& left, const Number& right) {
    if (left.isDouble() && right.isDouble()) return left.bits() < right.bits();
    return left.value_ < right.value_;
  }

 private:
  template <typename Type>
  explicit Number(Type value) : value_(value) {}

  uint64_t bits() const { return std::bit_cast<uint64_t>(std::get<double>(value_)); }

  std::variant<bool, int64_t, double> value_;
};

}  // namespace vorlix
