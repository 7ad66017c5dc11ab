// SPDX-License-Identifier: Apache-2.0
//
// Where identifiers stand in a prepared boot configuration store. The layout is fixed by the templates, one a mode.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vorlix {

enum class StoreIdentifier { partition, disk };

/// Sixteen bytes of a store that hold one identifier in raw form.
struct StoreSlot {
  uint32_t offset;  ///< bytes from the start of the file
  StoreIdentifier identifier;
};

constexpr int32_t kStoreModeMDT = 1;
constexpr int32_t kStoreModeSCCM = 2;

/// The slots of a mode in the order in which they are written. Any other mode is a standard EFI start.
std::span<const StoreSlot> storeSlots(int32_t mode);

/// What a store is told about the volume that it starts, in raw form.
struct StoreIdentifiers {
  std::array<uint8_t, 16> partition = {};
  std::array<uint8_t, 16> disk = {};

  const std::array<uint8_t, 16>& of(StoreIdentifier identifier) const {
    return identifier == StoreIdentifier::partition ? partition : disk;
  }
};

/// The store with the identifiers in the slots of a mode. One that ends before a slot grows, with zeros in the gap; all
/// other bytes stay.
std::vector<uint8_t> storeWithIdentifiers(std::span<const uint8_t> store, int32_t mode,
                                          const StoreIdentifiers& identifiers);

/// Why bytes are no registry hive, the form of every boot configuration store: signature, checksum, sizes. Absent for
/// what looks like one.
std::optional<std::string> whyNoHive(std::span<const uint8_t> store);

/// The offsets of those slots of a mode that hold no identifier of a device element, which says that the store is
/// another one or made for another mode.
std::vector<uint32_t> oddSlots(std::span<const uint8_t> store, int32_t mode);

}  // namespace vorlix
