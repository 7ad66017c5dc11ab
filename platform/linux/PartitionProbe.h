// SPDX-License-Identifier: Apache-2.0
//
// The partition table of a disk, recognised by libblkid. Reading is enough, so image files need no privilege.
#pragma once

#include <Vorlix/foundation/UUID.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/posix/Extent.h"

namespace vorlix {

/// A used entry.
struct ProbedEntry {
  uint32_t number = 0;
  Extent extent;
  std::optional<UUID> uuid;  ///< GPT only
  std::string content;       ///< as tableContent() returns it
};

struct ProbedTable {
  std::string scheme;        ///< "gpt", "dos" or another name of libblkid; empty without a table
  std::optional<UUID> uuid;  ///< disk GUID; GPT only
  std::vector<ProbedEntry> entries;
};

/// Reads the table of the whole disk behind `descriptor`.
///
/// If there is a GPT header in its place, the GPT counts, whatever the MBR says. A table with wrong checksums has the
/// slices that can be read but no identifiers, which may be wrong as well.
ProbedTable probePartitionTable(int descriptor, uint64_t diskSize, uint32_t blockSize);

/// Returns the name of a partition in the GPT of a whole disk. Absent if it has none.
std::optional<std::string> probePartitionName(int descriptor, uint32_t blockSize, uint32_t number);

/// Returns a partition type as the registry's "Content": a GUID in upper case, or an MBR type as in "0x07". `type` is
/// the text of libblkid, such as "c12a7328-f81f-11d2-ba4b-00a0c93ec93b" or "0x7". Empty for other text.
std::string tableContent(const std::string& type);

/// Returns "GUID_partition_scheme" for "gpt", "FDisk_partition_scheme" for "dos", else empty.
std::string schemeContent(const std::string& scheme);

}  // namespace vorlix
