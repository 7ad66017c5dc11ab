// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/NSNumber+HumanReadable.h>

#include <iomanip>
#include <locale>
#include <sstream>
#include <stdexcept>

namespace {

struct Unit {
  double bytes;
  const char* suffix;
};

constexpr Unit kUnits[] = {{1e12, " TB"}, {1e9, " GB"}, {1e6, " MB"}, {1e3, " KB"}};

// Whether it is at least 1 once it is cut to a signed 64-bit number. What does not fit one is not.
bool isAtLeastOne(double quotient) {
  constexpr double kBeyond = 9223372036854775808.0;  // 2^63
  return quotient >= 1 && quotient < kBeyond;
}

std::string utf8(char32_t character) {
  const auto byte = [&](char32_t lead, unsigned shift) {
    return static_cast<char>(lead | (character >> shift & 0x3F));
  };
  if (character < 0x80) return {static_cast<char>(character)};
  if (character < 0x800) return {static_cast<char>(0xC0 | character >> 6), byte(0x80, 0)};
  return {static_cast<char>(0xE0 | character >> 12), byte(0x80, 6), byte(0x80, 0)};
}

// Through a locale object of its own: the process's is the host's.
std::string decimalSeparator() {
  try {
    const std::locale numeric(std::locale::classic(), "", std::locale::numeric);
    return utf8(static_cast<char32_t>(std::use_facet<std::numpunct<wchar_t>>(numeric).decimal_point()));
  } catch (const std::runtime_error&) {
    return ".";
  }
}

std::string twoDecimals(double value) {
  constexpr int kDecimals = 2;
  std::ostringstream stream;
  stream.imbue(std::locale::classic());  // the process's may group the digits
  stream << std::fixed << std::setprecision(kDecimals) << value;
  std::string text = stream.str();
  const size_t point = text.find('.');
  if (point != std::string::npos) text.replace(point, 1, decimalSeparator());
  return text;
}

}  // namespace

std::string stringWithHumanReadableInt(const vorlix::Number& number) {
  const double value = number.doubleValue();
  for (const Unit& unit : kUnits) {
    const double quotient = value / unit.bytes;
    if (isAtLeastOne(quotient)) return twoDecimals(quotient) + unit.suffix;
  }
  if (value == 0) return "";
  return twoDecimals(value) + " Bytes";
}
