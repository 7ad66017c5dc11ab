// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/StartCheck.h>
#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>

namespace vorlix {
namespace {

// A device element that names a partition has, relative to the partition's identifier: 6 (a partition) at -0x10, the
// length 0x48 at -0x08, 0 (GPT) or 1 (MBR) at 0x14, and the disk's identifier at 0x18.
constexpr size_t kElementType = 0x10;
constexpr size_t kElementLength = 0x08;
constexpr size_t kElementScheme = 0x14;
constexpr size_t kElementDisk = 0x18;
constexpr size_t kIdentifier = 16;
constexpr size_t kMostDevices = 1024;

}  // namespace

std::vector<StoreDevice> storeDevices(std::span<const uint8_t> store) {
  std::vector<StoreDevice> devices;
  const auto word = [&](size_t offset) { return littleEndian32(store.data() + offset); };
  // Data in a hive begins at a multiple of four bytes.
  for (size_t at = kElementType; at + kElementDisk + kIdentifier <= store.size() && devices.size() < kMostDevices;
       at += 4) {
    if (word(at - kElementType) != 6 || word(at - kElementLength) != 0x48 || word(at + kElementScheme) > 1) continue;
    StoreDevice device;
    device.offset = at;
    device.isMBR = word(at + kElementScheme) == 1;
    std::copy_n(store.begin() + static_cast<std::ptrdiff_t>(at), kIdentifier, device.partition.begin());
    std::copy_n(store.begin() + static_cast<std::ptrdiff_t>(at + kElementDisk), kIdentifier, device.disk.begin());
    devices.push_back(device);
  }
  return devices;
}

}  // namespace vorlix
