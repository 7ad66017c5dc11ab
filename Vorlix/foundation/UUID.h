// SPDX-License-Identifier: Apache-2.0
/// @file
/// A universally unique identifier as a value.
#pragma once

#include <Vorlix/foundation/Export.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vorlix {

/// Sixteen bytes in the order of the text form (RFC 9562), not in the mixed-endian order of GPT and Windows.
class VORLIX_EXPORT UUID {
 public:
  using Bytes = std::array<uint8_t, 16>;

  UUID() = default;
  explicit UUID(const Bytes& bytes) : bytes_(bytes) {}

  /// Returns a new identifier of version 4: 122 random bits.
  static UUID random();

  /// Parses 8-4-4-4-12 hexadecimal digits of either case. Absent for any other text.
  static std::optional<UUID> fromText(std::string_view text);

  const Bytes& bytes() const { return bytes_; }

  /// Returns the groups 8-4-4-4-12 in upper case.
  std::string text() const;

  friend bool operator==(const UUID&, const UUID&) = default;

 private:
  Bytes bytes_ = {};
};

}  // namespace vorlix
