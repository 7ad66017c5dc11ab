// SPDX-License-Identifier: Apache-2.0
//
// What the I/O registry shows of a disk that the kernel knows or of an image file.
#pragma once

#include <Vorlix/foundation/UUID.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/posix/Extent.h"

namespace vorlix {

struct SliceFacts {
  uint32_t number = 0;
  std::string bsdName;
  Extent extent;  ///< bytes on the whole disk
  bool writable = false;
  std::optional<UUID> uuid;  ///< GPT partitions only
  std::string content;       ///< GPT type in upper case, MBR type as in "0x07"; empty if unknown
};

struct DiskFacts {
  std::string bsdName;
  std::string location;            ///< distinguishes devices of one name in registry paths
  std::optional<bool> rotational;  ///< of the medium
  std::optional<std::string> product;
  std::optional<std::string> vendor;
  bool hasMedium = true;  ///< if false, there is only the device, and the members below have no meaning
  uint64_t size = 0;      ///< bytes
  uint32_t blockSize = 512;
  bool removable = false;
  bool writable = false;
  std::string content;       ///< "GUID_partition_scheme", "FDisk_partition_scheme" or empty
  std::optional<UUID> uuid;  ///< disk GUID of the GPT
  std::vector<SliceFacts> slices;
};

}  // namespace vorlix
