// SPDX-License-Identifier: Apache-2.0
//
// Ownership of libblkid's probes.
#pragma once

#include <blkid.h>

#include <memory>
#include <type_traits>

#include "platform/posix/Extent.h"

namespace vorlix {

inline constexpr uint64_t kBlkidSector = 512;  ///< the unit of places and sizes, whatever the block size of the disk

struct BlkidProbeDeleter {
  void operator()(blkid_probe probe) const { blkid_free_probe(probe); }
};
using BlkidProbe = std::unique_ptr<std::remove_pointer_t<blkid_probe>, BlkidProbeDeleter>;

/// Returns a probe of a range of a device, all of it for a size of 0. No kind of probing is enabled. Null on failure.
inline BlkidProbe blkidProbeOf(int descriptor, Extent window) {
  BlkidProbe probe(blkid_new_probe());
  const bool isSet = probe && blkid_probe_set_device(probe.get(), descriptor, static_cast<blkid_loff_t>(window.offset),
                                                     static_cast<blkid_loff_t>(window.size)) == 0;
  if (!isSet) return nullptr;
  blkid_probe_enable_superblocks(probe.get(), 0);
  return probe;
}

}  // namespace vorlix
