// SPDX-License-Identifier: Apache-2.0
//
// The sectors that a hybrid start needs, as bytes: sector 0 of the disk, and the boot sectors of the volume. Nothing
// here reads or writes a device. The flat functions and the command line both write what these functions make.
//
// Boot sectors of FAT and NTFS share their first fields; the rest of the places is from the published layouts (FAT: the
// FAT specification of 2000, sections "Boot Sector and BPB"; NTFS: as mkntfs writes it, with its second boot sector in
// the partition's last sector).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "PartitionRecords.h"

namespace vorlix {

using Sector = std::array<uint8_t, kSectorSize>;

/// Where MBR boot code proper ends. The six bytes that follow, up to kBootCodeSize, are the disk signature's.
constexpr size_t kPureBootCodeSize = 440;

constexpr size_t kHiddenSectorsOffset = 28;  // of a FAT or NTFS boot sector, 4 bytes
constexpr size_t kNTFSSerialOffset = 72;     // of an NTFS boot sector, 8 bytes

/// Eight bytes at random: an NTFS volume's serial. Others use the first of them.
using Serial = std::array<uint8_t, 8>;

/// Draws a serial from the system's random source. False where that has none.
bool drawSerial(Serial& serial);

/// Sector 0: boot code, of which 446 bytes are taken and a shorter one is filled with zeros; the four slots; the
/// signature.
Sector makeSector0(Bytes bootCode, const MBRPartitionEntry (&parts)[kSlotCount], uint16_t signature = kMBRSignature);

/// What a sector 0 lacks of the one wanted.
struct Sector0Difference {
  std::vector<uint32_t> slots;  ///< numbers of the slots whose bytes differ
  bool bootCode = false;        ///< the boot code proper differs; the disk signature is not looked at
  bool signature = false;       ///< 55 AA is missing

  bool any() const { return !slots.empty() || bootCode || signature; }
  /// For people: "slot 1, 3 and boot code differ"; "differed" once it is written.
  std::string text() const;
  std::string pastText() const;

 private:
  std::string names() const;
};
Sector0Difference compareSector0(const Sector& now, const Sector& wanted);

/// The sector 0 to write over `now`: `wanted` where its slots differ, with the disk signature of the boot-code file, as
/// the flat functions write it. Where the slots are right, the disk keeps its signature, by which systems know it.
Sector renewedSector0(const Sector& now, const Sector& wanted);

/// What the boot sector of a volume says of its file system.
enum class BootSectorKind { ntfs, fat, empty, other };
BootSectorKind kindOf(const Sector& bootSector);

/// What MBR stands in sector 0, if one does.
enum class MBRKind {
  none,          ///< no 55 AA
  volume,        ///< the boot sector of a volume that has the whole disk
  dos,           ///< an MBR of its own
  protectsOnly,  ///< one slot of type EE and no other
  hybrid,        ///< a slot of type EE and others
};
MBRKind mbrKindOf(const Sector& sector0);

/// The little-endian hidden-sectors field of a FAT or NTFS boot sector.
uint32_t hiddenSectors(const Sector& bootSector);

/// The four bytes of that field.
std::array<uint8_t, 4> hiddenSectorsBytes(uint32_t start);

/// A run of bytes in a boot sector.
struct Field {
  size_t offset = 0;
  size_t size = 0;
};

/// The volume's serial: 8 bytes on NTFS, 4 on FAT, where the boot sector has one. Empty elsewhere.
Field serialField(const Sector& bootSector);

/// The boot code behind the volume's parameters, up to 55 AA. Empty for other file systems.
Field bootCodeField(const Sector& bootSector);

/// Whether the volume's boot code is nothing but zeros.
bool lacksBootCode(const Sector& bootSector);

/// An NTFS or FAT boot sector with another hidden-sectors field and serial. Others come back unchanged.
Sector patchedBootSector(const Sector& bootSector, uint32_t start, const Serial& serial);

/// Whether two boot sectors are the same but for the two fields that patchedBootSector() sets.
bool isCopyButForPatch(const Sector& first, const Sector& second);

/// Where the second boot sector of a volume would stand, in bytes from the volume's start; all places lie inside it.
/// NTFS: the last sector of the partition, and the one behind the volume where that ends earlier. FAT32: the sector
/// that the field at 0x32 names. @param size  bytes of the slice.
std::vector<uint64_t> secondBootSectorPlaces(const Sector& bootSector, uint64_t size);

}  // namespace vorlix
