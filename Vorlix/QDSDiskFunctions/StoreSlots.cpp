// SPDX-License-Identifier: Apache-2.0
#include "StoreSlots.h"

namespace vorlix {
namespace {

constexpr StoreIdentifier P = StoreIdentifier::partition;
constexpr StoreIdentifier D = StoreIdentifier::disk;

constexpr StoreSlot kStandardSlots[] = {{10492, P}, {10740, P}, {5828, D}, {7900, D},
                                        {9372, D},  {10516, D}, {10764, D}};
constexpr StoreSlot kMDTSlots[] = {{8792, P},  {8816, D},  {10200, P}, {10224, D},
                                   {14124, P}, {11908, D}, {11932, D}, {14148, D}};
constexpr StoreSlot kSCCMSlots[] = {{8424, P}, {8448, D}, {9872, P}, {9896, D}, {11660, D}, {19284, D}};

}  // namespace

std::span<const StoreSlot> storeSlots(int32_t mode) {
  switch (mode) {
    case kStoreModeMDT:
      return kMDTSlots;
    case kStoreModeSCCM:
      return kSCCMSlots;
    default:
      return kStandardSlots;
  }
}

}  // namespace vorlix
