// SPDX-License-Identifier: Apache-2.0
//
// The I/O registry on Linux: the machine's disks and the disk-image files that were named, as entries of the classes
// and with the properties that they have in the native registry.
//
//     root                                   IORegistryEntry
//       the machine                          IOPlatformExpertDevice   "model"
//         a disk's device                    IOBlockStorageDevice     "Device Characteristics"
//           the medium in it                 IOMedia                  "BSD Name", "Whole", "Size" ...
//             its partition table            IOGUIDPartitionScheme    "UUID"
//               a slice                      IOMedia                  "BSD Name", "Partition ID", "UUID", "Base" ...
//
// Every entry is in both planes. There are no user clients and no APFS volumes here. The entries that a call hands out
// belong to one moment and do not change; the next call looks anew. An iterator looks when its first entry is asked
// for.
//
// The entry of the partition table is there if the disk has one that is recognised, or slices by the kernel's account.
// Its class is IOFDiskPartitionScheme for an MBR, and IOPartitionScheme for a table of another sort.
//
// Identity. A slice has a "UUID" only on a GPT disk: its partition GUID. The disk GUID stands as "UUID" at the entry of
// the table, the parent of the slices, as in the native registry. The medium of the whole disk has none, so that its
// GUID is not taken for a partition's. On an MBR disk nothing has a "UUID": a disk signature and a slot number are no
// GUID and must not be taken for one. Where a disk may not be opened, all of this comes from udev's database.
//
// BSD names are the kernel's, without "/dev/"; a slice that the kernel has no node for is called `<whole>s<N>`.
// Matching by BSD name takes that form for every slice, and finds image files by any name that locateDevice() takes for
// one; else names are compared exactly. An iterator over a plane can show only image files whose names came up before
// in this process, through disk arbitration, a device file, bsdNameFor() or matching by name: who wants to meet one in
// a walk names it first.
#pragma once

#include <Vorlix/platform/IORegistry.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "DiskFacts.h"

namespace vorlix {

class LinuxIORegistry final : public IORegistry {
 public:
  /// `root` stands before the paths of /sys, /dev and /run/udev, so that a captured tree can be looked at.
  explicit LinuxIORegistry(std::string root = "") : root_(std::move(root)) {}

  KernReturn masterPort(MasterPort& port) override;
  /// An image's is its absolute path, whatever name leads to it; the image is in walks from now on.
  std::string bsdNameFor(const std::string& device) override;
  KernReturn createIterator(MasterPort port, const std::string& plane,
                            std::shared_ptr<RegistryIterator>& iterator) override;
  KernReturn matchingServices(MasterPort port, const RegistryMatching& matching,
                              std::shared_ptr<RegistryIterator>& iterator) override;

  /// The entry of the medium of a disk that was looked at already, or of a slice of it unless that is 0. Null where the
  /// disk has no such medium.
  std::shared_ptr<RegistryEntry> mediumEntry(const DiskFacts& disk, uint32_t slice) const;

 private:
  std::string root_;
};

}  // namespace vorlix
