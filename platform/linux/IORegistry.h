// SPDX-License-Identifier: Apache-2.0
//
// The I/O registry on Linux: the machine's disks and the disk-image files that were named, as entries with the classes
// and properties of the native registry.
//
//     root                                   IORegistryEntry
//       the machine                          IOPlatformExpertDevice   "model"
//         a disk's device                    IOBlockStorageDevice     "Device Characteristics"
//           the medium in it                 IOMedia                  "BSD Name", "Whole", "Size" ...
//             its partition table            IOGUIDPartitionScheme    "UUID"
//               a slice                      IOMedia                  "BSD Name", "Partition ID", "UUID", "Base" ...
//
// Every entry is in both planes. There are no user clients and no APFS volumes. Entries show one moment and do not
// change; each call reads the system again. An iterator reads it when its first entry is requested.
//
// The entry of the partition table exists if the disk has a known table or the kernel has slices. Its class is
// IOFDiskPartitionScheme for an MBR, and IOPartitionScheme for another kind of table.
//
// Identity. Only slices of a GPT disk have a "UUID", their partition GUID. The disk GUID is the "UUID" of the entry of
// the table, the parent of the slices, as in the native registry. The medium of the whole disk has none, so that its
// GUID is not mistaken for that of a partition. On an MBR disk nothing has a "UUID", because a disk signature or a slot
// number is not a GUID. If a disk cannot be opened, all of this comes from udev's database.
//
// BSD names are the kernel's, without "/dev/"; a slice without a kernel node is `<whole>s<N>`. Matching by BSD name
// accepts that form for every slice, and finds image files by every name that locateDevice() accepts; other names must
// be equal. An iterator over a plane shows only image files that this process has named before, through disk
// arbitration, a device file, bsdNameFor() or matching by name.
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
  /// `root` is put before the paths of /sys, /dev and /run/udev, so that a captured tree can be read.
  explicit LinuxIORegistry(std::string root = "") : root_(std::move(root)) {}

  KernReturn masterPort(MasterPort& port) override;
  /// The BSD name of an image is its absolute path, whatever name leads to it. Walks include the image from now on.
  std::string bsdNameFor(const std::string& device) override;
  KernReturn createIterator(MasterPort port, const std::string& plane,
                            std::shared_ptr<RegistryIterator>& iterator) override;
  KernReturn matchingServices(MasterPort port, const RegistryMatching& matching,
                              std::shared_ptr<RegistryIterator>& iterator) override;

  /// Returns the entry of the medium of a disk that was read already, or of a slice of it if `slice` is not 0. Null if
  /// the disk has no such medium.
  std::shared_ptr<RegistryEntry> mediumEntry(const DiskFacts& disk, uint32_t slice) const;

 private:
  std::string root_;
};

}  // namespace vorlix
