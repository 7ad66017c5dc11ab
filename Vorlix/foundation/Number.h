// SPDX-License-Identifier: Apache-2.0
/// @file
/// A number as a value.
#pragma once

#include <bit>
#include <cstdint>
#include <limits>
#include <variant>

namespace vorlix {

/// A truth value, a whole number or a floating-point number, which remembers which of them it was made from. Each can
/// be asked for as any of the three. Two numbers are equal if kind and value are.
class Number {
 public:
  static Number numberWithBool(bool value) { return Number(value); }
  static Number numberWithLongLong(int64_t value) { return Number(value); }
  static Number numberWithDouble(double value) { return Number(value); }

  bool isBool() const { return std::holds_alternative<bool>(value_); }
  bool isDouble() const { return std::holds_alternative<double>(value_); }

  /// False for zero and for false only.
  bool boolValue() const {
    return std::visit([](auto value) { return value != decltype(value){}; }, value_);
  }

  /// A floating-point number is cut towards zero. One that is beyond the range gives the range's end, one that is not a
  /// number 0.
  int64_t longLongValue() const {
    const double* const real = std::get_if<double>(&value_);
    if (real == nullptr) return std::holds_alternative<bool>(value_) ? boolValue() : std::get<int64_t>(value_);
    constexpr double kBeyond = 9223372036854775808.0;  // 2^63
    if (*real != *real) return 0;
    if (*real >= kBeyond) return std::numeric_limits<int64_t>::max();
    if (*real < -kBeyond) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(*real);
  }

  double doubleValue() const {
    return std::visit([](auto value) { return static_cast<double>(value); }, value_);
  }

  friend bool operator==(const Number&, const Number&) = default;
  /// An order for containers: by kind, floating-point numbers then by their bits, so that each value has a place of its
  /// own, one that is not a number included.
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
