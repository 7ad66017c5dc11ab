// SPDX-License-Identifier: Apache-2.0
/// @file
/// The offsets of identifiers in a prepared boot configuration store. Each mode has its template, which fixes them.
#pragma once

#include <Vorlix/foundation/Export.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vorlix {

/// Which identifier a slot holds.
enum class StoreIdentifier { partition, disk };

/// Sixteen bytes of a store that hold one identifier in on-disk (mixed-endian) order.
struct StoreSlot {
  uint32_t offset;             ///< bytes from the start of the file
  StoreIdentifier identifier;  ///< what belongs there
};

constexpr int32_t kStoreModeMDT = 1;   ///< the mode of an MDT template
constexpr int32_t kStoreModeSCCM = 2;  ///< the mode of an SCCM template

/// Returns the slots of a mode in the order in which they are written. Any other mode is the standard EFI boot.
VORLIX_EXPORT std::span<const StoreSlot> storeSlots(int32_t mode);

/// The identifiers of the partition that a store starts and of its disk, in on-disk (mixed-endian) order.
struct StoreIdentifiers {
  std::array<uint8_t, 16> partition = {};  ///< unique GUID of the GPT entry
  std::array<uint8_t, 16> disk = {};       ///< disk GUID of the GPT header

  /// Returns the one that belongs in a slot.
  const std::array<uint8_t, 16>& of(StoreIdentifier identifier) const {
    return identifier == StoreIdentifier::partition ? partition : disk;
  }
};

/// Returns the store with the identifiers in the slots of a mode. All other bytes stay. If the store ends before a
/// slot, it is extended and the gap filled with zeros.
VORLIX_EXPORT std::vector<uint8_t> storeWithIdentifiers(std::span<const uint8_t> store, int32_t mode,
                                                        const StoreIdentifiers& identifiers);

/// Returns why the bytes are not a registry hive, the form of every boot configuration store. Checks the signature, the
/// checksum and the sizes. Absent if the bytes look like a hive.
VORLIX_EXPORT std::optional<std::string> whyNoHive(std::span<const uint8_t> store);

/// Returns the offsets of the slots of a mode that do not hold an identifier of a device element. If there are any, the
/// store is made for another mode or is not such a template.
VORLIX_EXPORT std::vector<uint32_t> oddSlots(std::span<const uint8_t> store, int32_t mode);

}  // namespace vorlix
