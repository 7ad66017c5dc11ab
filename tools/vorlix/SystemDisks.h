// SPDX-License-Identifier: Apache-2.0
//
// The disks that the system has, with what it knows of them without opening them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vorlix::tool {

struct SystemSlice {
  uint32_t number = 0;
  uint64_t size = 0;    ///< bytes
  std::string content;  ///< GPT type, or MBR type as in "0x07"; empty if unknown
};

struct SystemDisk {
  std::string name;     ///< as disk arbitration has it: "sda"
  uint64_t size = 0;    ///< bytes
  std::string content;  ///< "GUID_partition_scheme", "FDisk_partition_scheme", or empty
  std::optional<std::string> model;
  std::optional<bool> isWritable;
  std::vector<SystemSlice> slices;  ///< in the order of their numbers

  /// Whether a listing of the machine's disks has it: disks of memory are none, and those that show files or other
  /// disks only count with a table.
  bool isListed() const;
};

/// Returns all of them, in the order of the registry.
std::vector<SystemDisk> systemDisks();

}  // namespace vorlix::tool
