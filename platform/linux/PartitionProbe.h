// SPDX-License-Identifier: Apache-2.0
//
// The partition table of a disk, as libblkid recognises it. Only reading is needed, so image files need no privilege.
#pragma once

#include <Vorlix/foundation/UUID.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/posix/Extent.h"

namespace vorlix {

/// An entry in use.
struct ProbedEntry {
  uint32_t number = 0;
  Extent extent;
  std::optional<UUID> uuid;  ///< GPT only
  std::string content;       ///< as tableContent() gives it
};

struct ProbedTable {
  std::string scheme;        ///< "gpt", "dos" or another name of libblkid's; empty without a table
  std::optional<UUID> uuid;  ///< disk GUID; GPT only
  std::vector<ProbedEntry> entries;
};

/// Reads the table of the whole disk behind `descriptor`.
///
/// As for devices that are read, a GPT header in its place decides, whatever the MBR says of it. A table whose
/// checksums are wrong still gives the slices that can be read, but no identifiers: those may be wrong as well.
ProbedTable probePartitionTable(int descriptor, uint64_t diskSize, uint32_t blockSize);

/// Returns the name of a partition in the GPT of a whole disk. Absent if it has none.
std::optional<std::string> probePartitionName(int descriptor, uint32_t blockSize, uint32_t number);

/// A partition type as the registry's "Content": a GUID in upper case, an MBR type as in "0x07". `type` is libblkid's
/// text, such as "c12a7328-f81f-11d2-ba4b-00a0c93ec93b" or "0x7". Empty for other text.
std::string tableContent(const std::string& type);

/// "GUID_partition_scheme" for "gpt", "FDisk_partition_scheme" for "dos", else empty.
std::string schemeContent(const std::string& scheme);

}  // namespace vorlix
