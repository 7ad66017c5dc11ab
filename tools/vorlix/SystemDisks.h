// SPDX-License-Identifier: Apache-2.0
//
// The disks that the system has, with what it knows of them without opening them.
#pragma once

#include <Vorlix/platform/IORegistry.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix::tool {

/// A whole disk or a slice.
struct SystemMedium {
  std::shared_ptr<RegistryEntry> entry;
  std::string name;  ///< as disk arbitration has it: "sda1"
  bool isWhole = false;
  uint64_t size = 0;    ///< bytes
  std::string content;  ///< GPT type, MBR type as in "0x07", the kind of a whole disk's table; empty if unknown

  std::optional<std::string> uuid() const;
};

/// Returns all of them, in the order of the registry.
std::vector<SystemMedium> systemMedia();

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
