// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/MountedVolumes.h>

namespace vorlix {

/// Lists the block devices and disk images in the kernel's mount table, in its order, then this user's mirrored FAT
/// volumes, in the order in which they were mirrored. The kernel has no mount times by which both could be sorted
/// together. File systems without a device or image are left out: the kernel's own, those in memory, network shares,
/// overlays. MountSources.h describes how the source of a driver in user space is found.
///
/// - The mount path is the first at which the root of the volume, or of a subvolume, is visible. Mounts that another
///   mount covers, and mounts of a single folder, do not count; a device that has only such mounts has no path and no
///   sizes.
/// - `mountedFrom` is a name that disk arbitration finds: the node that the mount names, or the path of a disk image,
///   with "s" and the number for a slice, if its loop device was made for the mount alone or if a driver in user space
///   reads the image itself. Images without a name are left out. Volumes of a FUSE driver that names its source
///   "ntfs:/..." have that name.
/// - Labels come from libblkid, or from udev's database if the user cannot read the device.
/// - Sizes come from statvfs(). Those of a mirrored volume come from its allocation table, so they change when the
///   mirror is written back.
///
/// The mount table is read once and each file system is accessed at most once, so a file system that does not respond
/// causes only one delay.
class LinuxMountedVolumes final : public MountedVolumes {
 public:
  std::vector<MountedVolume> volumes() override;
};

}  // namespace vorlix
