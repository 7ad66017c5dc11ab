// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/NSNumber+HumanReadable.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/UserLocale.h>

#include <iomanip>
#include <locale>
#include <sstream>

namespace {

struct Unit {
  double bytes;
  const char* suffix;
};

constexpr Unit kUnits[] = {{1e12, " TB"}, {1e9, " GB"}, {1e6, " MB"}, {1e3, " KB"}};

// Returns whether the quotient is at least 1 and fits a signed 64-bit number.
bool isAtLeastOne(double quotient) {
  constexpr double kBeyond = 9223372036854775808.0;  // 2^63
  return quotient >= 1 && quotient < kBeyond;
}

std::string twoDecimals(double value) {
  constexpr int kDecimals = 2;
  std::ostringstream stream;
  stream.imbue(std::locale::classic());  // the process's locale may group digits
  stream << std::fixed << std::setprecision(kDecimals) << value;
  std::string text = stream.str();
  const size_t point = text.find('.');
  if (point != std::string::npos) text.replace(point, 1, vorlix::platform().userLocale->decimalSeparator());
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
