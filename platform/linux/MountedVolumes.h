// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/MountedVolumes.h>

namespace vorlix {

/// First the block devices and disk images in the kernel's mount table, in its order, then this user's mirrored FAT
/// volumes, in the order in which they were mirrored: the kernel tells no times that the two could be put in one order
/// by. File systems that no device and no image is under are left out: the kernel's own, those in memory, network
/// shares, overlays. Which device or image a driver in user space serves, MountSources.h says.
///
/// - The mount path is the first at which the volume's root is, or that of a subvolume. A mount that another one
///   covers, and a folder that is mounted by itself, are no such place; a device that has only these has no path and
///   no sizes.
/// - `mountedFrom` is a name that disk arbitration resolves: the node as the mount names it, or the path of a disk
///   image (with "s" and the number of the slice) where its loop device was made for the mount alone, or where a driver
///   in user space reads the image by itself; an image that has no name any more is left out. The exception are volumes
///   of a FUSE driver that names its source "ntfs:/...": they stand under that name.
/// - Labels are libblkid's, or those in udev's database where the user may not read the device.
/// - The sizes are what statvfs() tells; of a mirrored volume, what its allocation table does: changes in the mirror do
///   not show before they are written back.
///
/// The mount table is read once, and each file system is asked once at most, so that one that does not answer costs no
/// more than its own delay.
class LinuxMountedVolumes final : public MountedVolumes {
 public:
  std::vector<MountedVolume> volumes() override;
};

}  // namespace vorlix
