// SPDX-License-Identifier: Apache-2.0
/// @file
/// The name form `<whole>s<N>`.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>

namespace vorlix {

/// A name `<whole>s<N>` in its parts.
struct SliceName {
  std::string whole;  ///< the name of the whole disk
  uint32_t number;    ///< of the slice, from 1
};

/// Splits "mac.imgs3" into "mac.img" and 3. Absent for a name of another form and for the number 0.
inline std::optional<SliceName> parseSliceName(const std::string& name) {
  const size_t lastOther = name.find_last_not_of("0123456789");
  if (lastOther == std::string::npos || lastOther == 0 || name[lastOther] != 's') return std::nullopt;
  if (name[lastOther - 1] == '/') return std::nullopt;
  uint32_t number = 0;
  const char* const end = name.data() + name.size();
  const auto [stop, error] = std::from_chars(name.data() + lastOther + 1, end, number);
  if (error != std::errc() || stop != end || number == 0) return std::nullopt;
  return SliceName{name.substr(0, lastOther), number};
}

}  // namespace vorlix
