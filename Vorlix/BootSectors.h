// SPDX-License-Identifier: Apache-2.0
/// @file
/// Builds and examines the sectors that hybrid booting needs, as bytes: sector 0 of the disk and the boot sectors of
/// the volume. Nothing here reads or writes a device. The flat functions and the command line both write the results of
/// these functions.
///
/// Boot sectors of FAT and NTFS share their first fields. The other offsets are from the published layouts. FAT: the
/// FAT specification of 2000, sections "Boot Sector and BPB". NTFS: as mkntfs writes it, with the second boot sector in
/// the last sector of the partition.
#pragma once

#include <Vorlix/PartitionRecords.h>
#include <Vorlix/foundation/Export.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vorlix {

/// Sector 0, or the first sector of a volume.
using Sector = std::array<uint8_t, kSectorSize>;

/// Size of the MBR boot code without the disk signature, which is the following six bytes, up to kBootCodeSize.
constexpr size_t kPureBootCodeSize = 440;

constexpr size_t kHiddenSectorsOffset = 28;  ///< of a FAT or NTFS boot sector, 4 bytes
constexpr size_t kNTFSSerialOffset = 72;     ///< of an NTFS boot sector, 8 bytes

/// A serial number of an NTFS volume: eight random bytes. FAT uses only the first four.
using Serial = std::array<uint8_t, 8>;

/// Draws a serial from the system's random source. Returns false if the source is not available.
VORLIX_EXPORT bool drawSerial(Serial& serial);

/// Returns a sector 0 with boot code, the four slots and the signature. The first 446 bytes of the boot code are used;
/// if it is shorter, zeros follow.
VORLIX_EXPORT Sector makeSector0(Bytes bootCode, const MBRPartitionEntry (&parts)[kSlotCount],
                                 uint16_t signature = kMBRSignature);

/// The differences between a disk's sector 0 and the wanted one.
struct VORLIX_EXPORT Sector0Difference {
  std::vector<uint32_t> slots;  ///< numbers of the slots whose bytes differ
  bool bootCode = false;        ///< the boot code differs; the disk signature is not compared
  bool signature = false;       ///< the signature 55 AA differs

  bool any() const { return !slots.empty() || bootCode || signature; }  ///< anything differs
  /// Returns a text for users: "slot 1, 3 and boot code differ".
  std::string text() const;
  /// Returns the same text for a sector that has been written: "slot 1, 3 and boot code differed".
  std::string pastText() const;

 private:
  std::string names() const;
};
/// Compares boot code, slots and signature.
VORLIX_EXPORT Sector0Difference compareSector0(const Sector& now, const Sector& wanted);

/// Returns the sector 0 to write over `now`. If the slots differ, it is `wanted`, with the disk signature of the
/// boot-code file, as the flat functions write it. If the slots are right, the disk keeps its disk signature, by which
/// systems identify it.
VORLIX_EXPORT Sector renewedSector0(const Sector& now, const Sector& wanted);

/// The file system of a volume, according to its boot sector.
enum class BootSectorKind { ntfs, fat, empty, other };
/// Returns the file system, by the name that NTFS and FAT boot sectors have in them. exFAT is `other`.
VORLIX_EXPORT BootSectorKind kindOf(const Sector& bootSector);

/// The kind of MBR in sector 0.
enum class MBRKind {
  none,          ///< no MBR: the signature 55 AA is missing
  volume,        ///< the boot sector of a volume that occupies the whole disk
  dos,           ///< an MBR without a slot of type EE
  protectsOnly,  ///< one slot of type EE and no other slot in use
  hybrid,        ///< a slot of type EE and other slots in use
};
/// Tells an MBR from a boot sector, and which kind of MBR it is.
VORLIX_EXPORT MBRKind mbrKindOf(const Sector& sector0);

/// Returns the little-endian hidden-sectors field of a FAT or NTFS boot sector.
VORLIX_EXPORT uint32_t hiddenSectors(const Sector& bootSector);

/// Returns the four bytes of a hidden-sectors field.
VORLIX_EXPORT std::array<uint8_t, 4> hiddenSectorsBytes(uint32_t start);

/// A run of bytes in a boot sector.
struct Field {
  size_t offset = 0;  ///< bytes from the start of the sector
  size_t size = 0;    ///< bytes; 0 if the boot sector has no such field
};

/// Returns the field of the volume's serial: 8 bytes on NTFS, 4 bytes on FAT. Empty if the boot sector has no serial,
/// and for other file systems.
VORLIX_EXPORT Field serialField(const Sector& bootSector);

/// Returns the field of the boot code, from the end of the volume's parameters to the signature 55 AA. Empty for other
/// file systems.
VORLIX_EXPORT Field bootCodeField(const Sector& bootSector);

/// Returns whether the volume's boot code consists of zeros only; true for other file systems, which have no such
/// field.
VORLIX_EXPORT bool lacksBootCode(const Sector& bootSector);

/// Returns whether the volume's boot code is that of mkntfs and mkfs.fat, with whatever text: it prints the text, waits
/// for a key and asks the BIOS for another disk. Nothing starts from it.
VORLIX_EXPORT bool onlyPrintsMessage(const Sector& bootSector);

/// Returns an NTFS or FAT boot sector with another hidden-sectors field and serial. Other sectors are returned
/// unchanged.
VORLIX_EXPORT Sector patchedBootSector(const Sector& bootSector, uint32_t start, const Serial& serial);

/// Returns whether two boot sectors are equal except for the two fields that patchedBootSector() sets.
VORLIX_EXPORT bool isCopyButForPatch(const Sector& first, const Sector& second);

/// Returns the offsets at which the second boot sector of a volume can be, in bytes from the start of the volume. All
/// of them are inside the slice. NTFS: the last sector of the partition and, if the volume ends earlier, the sector
/// behind the volume. FAT32: the sector whose number is in the field at 0x32.
/// @param size  size of the slice in bytes.
VORLIX_EXPORT std::vector<uint64_t> secondBootSectorPlaces(const Sector& bootSector, uint64_t size);

}  // namespace vorlix
