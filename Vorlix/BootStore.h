// SPDX-License-Identifier: Apache-2.0
/// @file
/// The objects and elements of a boot configuration store, and the partitions that they name. docs/boot-store.md has
/// the layouts and their sources.
///
/// A store is a registry hive. The library never parses one: the companion program `boot_store`, which the host ships
/// like `registry_lookup`, does so in a confined process. Everything that is decided about a store is decided here, by
/// functions from bytes to bytes.
#pragma once

#include <Vorlix/foundation/Export.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vorlix {

// Types of objects: the value Description\Type.
inline constexpr uint32_t kStoreFirmwareManager = 0x10100001;  ///< the boot menu of the firmware
inline constexpr uint32_t kStoreBootManager = 0x10100002;      ///< the boot manager of Windows
inline constexpr uint32_t kStoreLoader = 0x10200003;           ///< loads an installed Windows
inline constexpr uint32_t kStoreResume = 0x10200004;           ///< goes on with a hibernated Windows
inline constexpr uint32_t kStoreMemoryTester = 0x10200005;     ///< the memory diagnosis
inline constexpr uint32_t kStoreOldLoader = 0x10300006;        ///< of systems before the store
inline constexpr uint32_t kStoreBootSector = 0x10400008;       ///< started as a BIOS would

/// An element of an object: the value `Objects\{GUID}\Elements\<type>\Element`.
struct StoreElement {
  uint32_t type = 0;          ///< 0x11000001 is the device; bits 24 to 27 are the form, 1 a device
  uint32_t valueType = 0;     ///< the registry's type; 3 is REG_BINARY
  uint64_t offset = 0;        ///< of the data, in bytes from the start of the store's file; 0 for at most four bytes
  std::vector<uint8_t> data;  ///< as the registry has it

  bool isDevice() const { return (type >> 24U & 0xFU) == 1 && valueType == 3; }  ///< whether the data is a device
};

/// An object of a store.
struct StoreObject {
  std::string identifier;              ///< "{9dea862c-5cdd-4e70-acc1-f32b344d4795}", in the store's letter case
  uint32_t type = 0;                   ///< 0 if the object does not say
  std::vector<StoreElement> elements;  ///< in the order of the store
};

/// The name of the companion program that reads and changes stores (CompanionProgram.h).
inline constexpr const char* kBootStoreProgram = "boot_store";

/// Reads what `boot_store list` prints. Absent for any other text, and for one that is cut off.
VORLIX_EXPORT std::optional<std::vector<StoreObject>> parseStoreListing(std::string_view listing);

/// Lists the objects of a store by means of `boot_store`.
/// @return why that is not possible: "damaged hive: ..."; absent for success.
VORLIX_EXPORT std::optional<std::string> readStoreObjects(std::span<const uint8_t> store,
                                                          std::vector<StoreObject>& objects);

/// A change to the objects of a store.
struct StoreEdit {
  /// What an edit does.
  enum class Kind {
    removeObject,  ///< with all its elements
    setObject,     ///< makes the object if it is missing, and sets its type
    setElement,    ///< makes the element if it is missing, and sets its data
    removeElement,
  };

  Kind kind = Kind::setElement;  ///< says which of the other members count
  std::string object;            ///< its identifier, as in StoreObject
  uint32_t type = 0;             ///< of the object or of the element
  uint32_t valueType = 0;        ///< the registry's type, for setElement
  std::vector<uint8_t> data;     ///< of the element, for setElement
};

/// Returns the edits as `boot_store edit` reads them.
VORLIX_EXPORT std::string storeEditLines(const std::vector<StoreEdit>& edits);

/// Makes a copy of a store with changes, by means of `boot_store`, and checks that the copy has them.
/// @return why that is not possible; absent for success.
VORLIX_EXPORT std::optional<std::string> editStore(std::span<const uint8_t> store, const std::vector<StoreEdit>& edits,
                                                   std::vector<uint8_t>& result);

/// How a store identifies a partition.
struct StorePartition {
  bool isMBR = false;                      ///< the disk has an MBR, not a GPT
  std::array<uint8_t, 16> partition = {};  ///< GUID in on-disk order; MBR: offset on its disk in bytes, then zeros
  std::array<uint8_t, 16> disk = {};       ///< GUID in on-disk order; MBR: disk signature, then zeros

  bool operator==(const StorePartition&) const = default;  ///< compares all fields
};

/// The identification of a partition of an MBR.
/// @param offset     bytes from the start of the disk
/// @param signature  of the disk, at 0x1B8 of sector 0
VORLIX_EXPORT StorePartition mbrStorePartition(uint64_t offset, uint32_t signature);

/// Returns the data of a device element that names a partition: 88 bytes.
VORLIX_EXPORT std::vector<uint8_t> partitionElement(const StorePartition& partition);

/// Returns the partitions that a device element names, outermost first: the partition itself, or that of a file or RAM
/// disk. A partition inside a virtual disk is none of the disk's and is left out.
VORLIX_EXPORT std::vector<StorePartition> partitionsOf(std::span<const uint8_t> element);

/// Returns a device element with another partition in the place of every one of partitionsOf(). All other bytes and the
/// length stay.
VORLIX_EXPORT std::vector<uint8_t> elementWithPartition(std::span<const uint8_t> element,
                                                        const StorePartition& partition);

/// Which partition the device elements of an object name.
enum class StorePlace {
  systemPartition,  ///< where the boot manager is: the EFI System Partition, or the active partition of a BIOS start
  windowsVolume
};

/// Returns the place for objects of a type. The boot manager, the memory tester and what starts other systems are on
/// the system partition. Loaders, resume objects, options of RAM disks and all others name the Windows volume.
VORLIX_EXPORT StorePlace storePlaceOf(uint32_t objectType);

/// Returns what an object is: "boot manager", "loader", ...; "object" for a type without a name.
VORLIX_EXPORT std::string storeObjectKind(uint32_t objectType);

/// The partitions that a store is to name.
struct StoreTargets {
  StorePartition system;   ///< where the boot manager is
  StorePartition windows;  ///< where Windows is

  /// Returns the partition of a place.
  const StorePartition& at(StorePlace place) const { return place == StorePlace::systemPartition ? system : windows; }
};

/// A device element that names a partition, before and after.
struct StoreDeviceChange {
  std::string object;                            ///< its identifier, as in StoreObject
  uint32_t objectType = 0;                       ///< as in StoreObject::type
  uint32_t element = 0;                          ///< as in StoreElement::type
  StorePlace place = StorePlace::windowsVolume;  ///< of the partition that it gets
  std::vector<StorePartition> before;            ///< one for each partition that the element names
};

/// A store in which the partitions were set.
struct StoreWithPartitions {
  std::vector<StoreDeviceChange> devices;  ///< in the store's order; those that stay the same, too
  std::vector<uint8_t> store;              ///< of the same length
};

/// Sets the targets in all device elements that name a partition, in place.
/// @param objects  of this store, from readStoreObjects()
/// @return why that is not possible: no element names a partition, or the store is damaged; absent for success.
VORLIX_EXPORT std::optional<std::string> setStorePartitions(std::span<const uint8_t> store,
                                                            const std::vector<StoreObject>& objects,
                                                            const StoreTargets& targets, StoreWithPartitions& result);

}  // namespace vorlix
