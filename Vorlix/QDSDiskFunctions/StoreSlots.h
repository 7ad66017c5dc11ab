// SPDX-License-Identifier: Apache-2.0
//
// Where identifiers stand in a prepared boot configuration store. The layout is fixed by the templates, one a mode.
#pragma once

#include <cstdint>
#include <span>

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

}  // namespace vorlix
