// SPDX-License-Identifier: Apache-2.0
//
// Records of an NTFS volume's master file table, as far as a reader of the allocation needs them. Everything throws
// AllocationDoubt for what is damaged.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VolumeBytes.h"

namespace vorlix {

struct NTFSGeometry {
  uint64_t sector = 0;
  uint64_t clusterSize = 0;
  uint64_t clusters = 0;  ///< whole ones
  uint64_t mft = 0;       ///< cluster of the master file table's start
  uint64_t mirror = 0;    ///< cluster of its copy's start
  uint64_t recordSize = 0;
};

/// A run of clusters of an attribute.
struct NTFSRun {
  uint64_t cluster = 0;
  uint64_t count = 0;
  bool isSparse = false;  ///< has no clusters; reads as zeros
};

/// An attribute of a record, unpacked.
struct NTFSAttribute {
  uint32_t type = 0;
  std::u16string name;
  uint16_t flags = 0;
  bool isResident = false;
  std::vector<uint8_t> value;  ///< of a resident one
  std::vector<NTFSRun> runs;   ///< of another one: those from its first cluster on that this record lists
  uint64_t size = 0;           ///< bytes of its content
  uint64_t initialized = 0;    ///< bytes of which were ever written; the others read as zeros

  /// Neither compressed nor sparse nor encrypted.
  bool isPlain() const { return (flags & 0xC0FF) == 0; }
};

/// A record of the master file table.
class NTFSRecord {
 public:
  enum Type : uint32_t {
    kAttributeList = 0x20,
    kVolumeInformation = 0x70,
    kData = 0x80,
    kIndexRoot = 0x90,
    kIndexAllocation = 0xA0
  };

  /// Takes a record as it stands on the disk, before its fixups.
  NTFSRecord(std::vector<uint8_t> bytes, const NTFSGeometry& geometry);

  /// The attribute of a type and name; null where there is none.
  const NTFSAttribute* find(uint32_t type, const std::u16string& name = u"") const;

 private:
  std::vector<NTFSAttribute> attributes_;
};

/// Undoes the fixups of a record or index block: the last two bytes of each run of 512 bytes stand in its header.
/// @param magic  the four letters it begins with
void undoFixups(std::span<uint8_t> record, const char* magic);

/// Reads the content of an attribute that is not resident. Bytes that were never written are zeros; those beyond the
/// runs that are known throw.
void readContent(const VolumeBytes& volume, const NTFSGeometry& geometry, const NTFSAttribute& attribute,
                 uint64_t offset, std::span<uint8_t> bytes);

}  // namespace vorlix
