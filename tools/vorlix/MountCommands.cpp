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
  bool readWrite = false;
};

void mountAndTell(const std::string& device, bool readWrite) {
  complainOfLeftMirrors();
  const std::string name = bsdNameOf(device);
  const std::optional<Dissenter> refusal = tryMount(name, readWrite);
  const std::optional<std::string> path = mountPointOf(name);
  // Some systems refuse to mount what is mounted.
  if (refusal && !(path && refusal->status == kDissentBusy)) {
    throw Failure(device, reasonText(*refusal), path ? "nothing was changed" : "not mounted");
  }
  if (!path) throw Failure(device, "its volume has no mount point", "not mounted");
  if (readWrite && access(path->c_str(), W_OK) != 0) {
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

void addMountCommands(CLI::App& app, int& status) {
  const auto mounting = std::make_shared<MountOptions>();
  CLI::App* const mount = app.add_subcommand("mount", "Mount a volume and print where");
  mount->add_option("DEVICE", mounting->device, "Slice, device or disk-image file")->required();
  mount->add_flag("--read-write", mounting->readWrite, "For reading and writing, hidden from the desktop");
  mount->callback([mounting, &status] {
    mountAndTell(mounting->device, mounting->readWrite);
    status = kDone;
  });

  const auto unmounting = std::make_shared<MountOptions>();
  CLI::App* const unmount = app.add_subcommand("unmount", "Unmount a volume");
  unmount->add_option("DEVICE", unmounting->device, "Slice, device or disk-image file")->required();
  const auto discards = std::make_shared<bool>(false);
  unmount->add_flag(
      "--discard", *discards,
      "Throw away what was changed in the folder that stands for a FAT volume, and the folder; DEVICE may "
      "be that folder or its name");
  unmount->callback([unmounting, discards, &status] {
    if (*discards) {
      discardMirror(unmounting->device);
    } else {
      unmountOrFail(unmounting->device);
    }
    status = kDone;
  });

  CLI::App* const efi = app.add_subcommand("efi", "Mount or unmount the EFI System Partition of a disk (slice 1)");
  efi->require_subcommand(1);
  const auto disk = std::make_shared<std::string>();
  CLI::App* const efiMount = efi->add_subcommand("mount", "Mount it and print where");
  efiMount->add_option("DISK", *disk, "Whole disk or disk-image file")->required();
  efiMount->callback([disk, &status] {
    mountAndTell(efiSlice(*disk), false);
    status = kDone;
  });
  CLI::App* const efiUnmount = efi->add_subcommand("unmount", "Unmount it");
  efiUnmount->add_option("DISK", *disk, "Whole disk or disk-image file")->required();
  efiUnmount->callback([disk, &status] {
    unmountOrFail(efiSlice(*disk));
    status = kDone;
  });
}

}  // namespace vorlix::tool
