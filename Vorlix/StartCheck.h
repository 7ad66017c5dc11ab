// SPDX-License-Identifier: Apache-2.0
/// @file
/// Judges whether a disk can start its Windows: facts in, findings out. Nothing here reads a device; callers collect
/// the facts by whatever means they have and leave out what they cannot see. docs/start-check.md lists the codes.
#pragma once

#include <Vorlix/BootSectors.h>
#include <Vorlix/GPTCheck.h>
#include <Vorlix/foundation/Export.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vorlix {

/// A file as far as it was looked at.
struct FileFact {
  /// Whether the file was seen.
  enum class Sight { unseen, missing, there };

  Sight sight = Sight::unseen;  ///< unseen where nobody could look
  std::string reason;           ///< why it is unseen: "not mounted"
  std::vector<uint8_t> bytes;   ///< the content of a store that is there; empty for other files
};

/// The volume that is to start.
struct StartVolume {
  /// A second boot sector.
  struct Second {
    uint64_t offset = 0;  ///< bytes from the start of the volume
    Sector sector = {};   ///< its bytes
  };

  std::string name;             ///< for texts and commands: "mac.imgs3"
  Sector bootSector = {};       ///< its first 512 bytes
  std::vector<Second> seconds;  ///< what is in the places of secondBootSectorPlaces()

  /// Whether the file system is marked as not cleanly unmounted, and whether a hibernated Windows is on it. Absent for
  /// what was not looked at; `stateReason` says why.
  std::optional<bool> dirty;
  std::optional<bool> hibernated;  ///< absent where it could not be found out
  std::string stateReason;         ///< why `dirty` or `hibernated` is absent

  /// The same from a reader of the file system that does not tell the two apart: why the volume is not in a clean
  /// state, empty if it is. Absent if no such reader looked.
  std::optional<std::string> doubt;

  FileFact bootManager;  ///< "bootmgr" in the root, which the volume's boot code loads
  FileFact legacyStore;  ///< "boot/BCD"

  /// Whether a Windows on the volume has the files from which `vorlix bcd --from-windows --firmware bios` makes the
  /// two.
  bool suppliesBootFiles = false;

  /// The same for `vorlix bcd --from-windows`, which puts boot manager and store on the EFI System Partition.
  bool suppliesEFIFiles = false;
};

/// The EFI System Partition.
struct EFIVolume {
  uint32_t partition = 0;  ///< its GPT entry; 0 if no entry has that type
  std::string name;        ///< for texts and commands
  FileFact bootManager;    ///< "EFI/Microsoft/Boot/bootmgfw.efi"
  FileFact fallback;       ///< "EFI/Boot/bootx64.efi", which firmware starts without an entry of its own
  FileFact store;          ///< "EFI/Microsoft/Boot/BCD"
};

/// What is known of a disk.
struct StartFacts {
  std::string disk;                   ///< for texts and commands
  uint64_t blocks = 0;                ///< number of blocks
  uint64_t blockSize = 0;             ///< bytes
  Sector sector0 = {};                ///< its first 512 bytes
  GPTReport gpt;                      ///< as checkGPT() returns it
  uint32_t partition = 0;             ///< GPT entry of the volume, from 1; 0 if it is not known
  uint8_t type = 0;                   ///< MBR type that its slot must have; 0 for the one that follows from the GPT
  std::string whyNoVolume;            ///< why `volume` is absent
  std::optional<StartVolume> volume;  ///< the volume that a start by BIOS uses
  EFIVolume efi;                      ///< the EFI System Partition
};

/// Ways to start. `automatic` judges EFI if the EFI System Partition has a store, and a legacy start if it has none, or
/// if the MBR has more than a protective slot.
enum class StartWay { automatic, legacy, efi, both };

/// What was found in one area.
struct StartFinding {
  /// What a finding means for the start.
  enum class State {
    ok,
    note,    ///< may be wrong, and may be intended
    unseen,  ///< not looked at
    fault,   ///< keeps the disk from starting, or puts the start at risk
  };

  std::string area;         ///< a fixed word for what was looked at: "active-slot"
  State state = State::ok;  ///< the judgement
  std::string code;         ///< a fixed word for a note or a fault: "active-none"; empty otherwise
  std::string text;         ///< what was found; for `unseen`, why it was not looked at
  std::string why;          ///< of a fault: why it keeps the disk from starting
  std::string command;      ///< of a fault: the command line that mends it
};

/// Everything that was found.
struct VORLIX_EXPORT StartReport {
  bool legacy = false;                 ///< a legacy start was judged
  bool efi = false;                    ///< a start by EFI was judged
  std::vector<StartFinding> findings;  ///< in the order in which a start meets the areas

  /// Returns whether the disk starts as far as can be told: there is no fault.
  bool starts() const;
};

/// Returns a name as one word of a command line for a shell, as in the commands of findings: quoted where it has to be.
VORLIX_EXPORT std::string commandWord(const std::string& name);

/// Judges a disk. The findings have the order in which a start needs things.
VORLIX_EXPORT StartReport checkStart(const StartFacts& facts, StartWay way);

/// Why the slots of an MBR cannot mirror GPT entries 1 to 4.
struct SlotObstacle {
  std::string code;  ///< "phantom-slot" or "slots-overlap"
  std::string text;  ///< for people
};

/// Returns what keeps the entries from being mirrored: a number of more than 32 bits, whose low half would make a slot
/// in another partition, or entries that overlap. Absent if there is nothing.
VORLIX_EXPORT std::optional<SlotObstacle> slotObstacle(std::span<const GPTEntry> entries);

/// One partition that a boot configuration store names.
struct StoreDevice {
  uint64_t offset = 0;                     ///< of the partition's identifier in the store, in bytes
  bool isMBR = false;                      ///< identified by an MBR's numbers instead of GUIDs
  std::array<uint8_t, 16> partition = {};  ///< GUID as on disk; MBR: the partition's byte offset in the first 8 bytes
  std::array<uint8_t, 16> disk = {};       ///< GUID as on disk; MBR: the disk signature in the first 4 bytes
};

/// Returns the partitions that a store's device elements name, in the order of their offsets; at most 1024.
VORLIX_EXPORT std::vector<StoreDevice> storeDevices(std::span<const uint8_t> store);

}  // namespace vorlix
