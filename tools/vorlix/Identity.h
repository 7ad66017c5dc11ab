// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace vorlix::tool {

/// What identifies a device to boot code and boot stores. GUIDs are in the raw, mixed-endian form of GPT and Windows.
struct Identity {
  std::string name;       ///< disk arbitration's name
  std::string wholeDisk;  ///< the same of the whole disk
  int partition = 0;      ///< 0 for a whole disk
  std::optional<std::string> mediumType;
  std::optional<std::array<uint8_t, 16>> diskGUID;
  std::optional<std::array<uint8_t, 16>> partitionGUID;
  std::optional<int64_t> offset;  ///< bytes from the start of the disk

  /// Why nothing identifies the device; empty where something does. An MBR has no GUIDs: there a disk is known by its
  /// place in the machine, and a partition by its number.
  std::string nothing;
};

/// Looks a device up. Throws Failure for an unknown one.
Identity identify(const std::string& device);

/// "33 22 11 00 ...": the bytes in hexadecimal.
std::string rawText(const std::array<uint8_t, 16>& guid);

}  // namespace vorlix::tool
