// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "Arbitration.h"
#include "Commands.h"
#include "Failure.h"
#include "Mirrors.h"

namespace vorlix::tool {
namespace {

struct MountOptions {
  std::string device;
  bool readOnly = false;
  bool readWrite = false;
};

void mountAndTell(const std::string& device, MountFor purpose) {
  complainOfLeftMirrors();
  const std::string name = bsdNameOf(device);
  const std::optional<Dissenter> refusal = tryMount(name, purpose);
  const std::optional<std::string> path = mountPointOf(name);
  // Some systems refuse to mount what is mounted.
  if (refusal && !(path && refusal->status == kDissentBusy)) {
    throw Failure(device, reasonText(*refusal), path ? "nothing was changed" : "not mounted");
  }
  if (!path) throw Failure(device, "its volume has no mount point", "not mounted");
  if (purpose == MountFor::writing && access(path->c_str(), W_OK) != 0) {
    throw Failure(device, "mounted read-only, or writable only for others, at " + *path, "nothing was changed");
  }
  std::printf("%s\n", path->c_str());
}

void unmountOrFail(const std::string& device) {
  const std::string name = bsdNameOf(device);
  const std::optional<Dissenter> refusal = tryUnmount(name);
  if (!refusal) return;
  const bool staysMounted = mountPointOf(name).has_value();
  const std::string reason = reasonText(*refusal);
  throw Failure(device, reason.ends_with("not mounted") ? "not mounted" : reason,
                staysMounted ? "it stays mounted" : "nothing was changed");
}

std::string efiSlice(const std::string& disk) {
  return sliceNameOf(bsdNameOf(disk), 1);
}

}  // namespace

void addMountCommands(Command& top, int& status) {
  const auto mounting = std::make_shared<MountOptions>();
  Command mount = top.addCommand("mount", "Mount a volume and print where");
  mount.addOption("DEVICE", mounting->device, "Slice, device or disk-image file")
      .completes(ValueKind::device)
      .required();
  const Option reading = mount.addFlag("--read-only", mounting->readOnly, "For reading; no byte of the disk changes");
  mount.addFlag("--read-write", mounting->readWrite, "For reading and writing, hidden from the desktop")
      .excludes(reading);
  mount.setExamples({"vorlix mount --read-only mac.imgs1", "vorlix mount /dev/sda1"});
  mount.setAction([mounting, &status] {
    const MountFor otherwise = mounting->readWrite ? MountFor::writing : MountFor::any;
    mountAndTell(mounting->device, mounting->readOnly ? MountFor::reading : otherwise);
    status = kDone;
  });

  const auto unmounting = std::make_shared<MountOptions>();
  Command unmount = top.addCommand("unmount", "Unmount a volume");
  unmount.addOption("DEVICE", unmounting->device, "Slice, device or disk-image file")
      .completes(ValueKind::mounted)
      .required();
  const auto discards = std::make_shared<bool>(false);
  unmount.addFlag("--discard", *discards,
                  "Throw away what was changed in the folder that stands for a FAT volume, and the folder; DEVICE may "
                  "be that folder or its name");
  unmount.setExamples({"vorlix unmount mac.imgs1"});
  unmount.setAction([unmounting, discards, &status] {
    if (*discards) {
      discardMirror(unmounting->device);
    } else {
      unmountOrFail(unmounting->device);
    }
    status = kDone;
  });

  Command efi = top.addCommand("efi", "Mount or unmount the EFI System Partition of a disk (slice 1)");
  efi.requireCommand();
  efi.setExamples({"vorlix efi mount /dev/sda", "vorlix efi unmount /dev/sda"});
  const auto disk = std::make_shared<std::string>();
  Command efiMount = efi.addCommand("mount", "Mount it and print where");
  efiMount.addOption("DISK", *disk, "Whole disk or disk-image file").completes(ValueKind::disk).required();
  efiMount.setExamples({"vorlix efi mount mac.img"});
  efiMount.setAction([disk, &status] {
    mountAndTell(efiSlice(*disk), MountFor::any);
    status = kDone;
  });
  Command efiUnmount = efi.addCommand("unmount", "Unmount it");
  efiUnmount.addOption("DISK", *disk, "Whole disk or disk-image file").completes(ValueKind::disk).required();
  efiUnmount.setExamples({"vorlix efi unmount mac.img"});
  efiUnmount.setAction([disk, &status] {
    unmountOrFail(efiSlice(*disk));
    status = kDone;
  });
}

}  // namespace vorlix::tool
