// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: volumes that the system does not mount itself: mirrors of them, and access to single files of them. Systems
/// that mount every volume have no mirrors.
#pragma once

#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/DiskChange.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// A folder with copies of a volume's files. Changes to them are written back when the volume is unmounted.
struct VolumeMirror {
  /// What became of the volume behind a mirror.
  enum class Volume {
    there,    ///< it is mounted: unmounting writes the changes back
    gone,     ///< there is no device with its name
    replaced  ///< the device with its name holds another volume
  };

  std::string device;                ///< the name of the device it was mounted from
  std::string folder;                ///< where the mirror is
  Volume volume = Volume::there;     ///< as far as the system tells
  std::vector<std::string> changes;  ///< not yet on the volume: "new /a", "changed /b", "removed /c"
};

/// Access to the files of a volume that is not mounted. While an object of openUnmounted() exists, the disk is locked
/// and no process of this user can mount the volume; a caller that wants to mount it destroys the object first.
class UnmountedVolume {
 public:
  /// An entry of a folder.
  struct Item {
    std::string name;       ///< in the spelling of the volume; UTF-8
    bool isFolder = false;  ///< false for files
    uint64_t size = 0;      ///< of a file, in bytes
  };

  virtual ~UnmountedVolume() = default;

  /// Returns the items of a folder. @param folder  "" for the root, else like "/EFI/Boot" in the volume's spelling.
  virtual std::vector<Item> itemsIn(const std::string& folder) const = 0;

  /// Returns the items of a folder as itemsIn() does, and also says if the folder cannot be read.
  /// @return why it cannot be read; absent for success.
  virtual std::optional<Dissenter> list(const std::string& folder, std::vector<Item>& items) const {
    items = itemsIn(folder);
    return std::nullopt;
  }

  /// Reads a whole file. @return why it cannot be read; absent for success.
  virtual std::optional<Dissenter> read(const std::string& file, std::vector<uint8_t>& bytes) const = 0;

  /// Reads the first `count` bytes of a file, fewer if the file is smaller. Unlike read(), it may be of any size.
  virtual std::optional<Dissenter> readStart(const std::string& file, size_t count, std::vector<uint8_t>& bytes) const {
    std::optional<Dissenter> refusal = read(file, bytes);
    if (bytes.size() > count) bytes.resize(count);
    return refusal;
  }

  /// Returns how many bytes a file at that path can have, including those of the file that is there now.
  virtual uint64_t roomFor(const std::string& file) const = 0;

  /// Replaces the content of a file, or creates the file, and compares it with the medium afterwards. A journal makes
  /// sure that either the old or the new file is complete, whatever happens. A new file must be in a folder, not in the
  /// root. Refused with kDissentUnsupported if a file of that name can be created only on the mounted volume.
  /// @param backup  where the journal is kept.
  /// @param kept    gets the folder of the backup; empty if there is none.
  /// @param state   gets what is on the disk after a failure; empty if nothing was written.
  /// @return why it was not written; absent for success.
  virtual std::optional<Dissenter> write(const std::string& file, const std::vector<uint8_t>& bytes,
                                         const ChangeBackup& backup, std::string& kept, std::string& state) = 0;
};

/// Port: volumes that are used without a mount.
class VolumeMirrors {
 public:
  virtual ~VolumeMirrors() = default;

  /// Opens a volume whose files can be accessed without mounting it. Returns null without a `refusal` if the volume is
  /// mounted or has to be mounted, and null with a `refusal` if it cannot be accessed now.
  virtual std::unique_ptr<UnmountedVolume> openUnmounted(const std::string& device, std::optional<Dissenter>& refusal) {
    static_cast<void>(device);
    refusal.reset();
    return nullptr;
  }

  /// Returns the mirrors of this user, in the order in which they were made.
  virtual std::vector<VolumeMirror> mirrors() = 0;

  /// Finishes what an interrupted unmount has begun to write to the mirror's volume, so that `changes` of mirrors() are
  /// then what the volume really lacks. @return why it cannot be finished; absent if it is finished or there was
  /// nothing to finish.
  virtual std::optional<Dissenter> settle(const VolumeMirror& mirror) = 0;

  /// Removes a mirror with all changes in it. @return why it was refused; absent for success.
  virtual std::optional<Dissenter> discard(const VolumeMirror& mirror) = 0;

  /// Opens a volume that is not mounted, to look at its files only: nothing is locked or changed, and write() of the
  /// result always refuses. On Linux the volume may be FAT or NTFS, and a file of NTFS at most 512 MiB. Returns null
  /// without a `refusal` if the volume is mounted or the system has no such way, and null with one if the volume cannot
  /// be read.
  virtual std::unique_ptr<UnmountedVolume> openToRead(const std::string& device, std::optional<Dissenter>& refusal) {
    static_cast<void>(device);
    refusal.reset();
    return nullptr;
  }

  /// Says that a mirror may be empty when this process unmounts it, if its volume had no other files than these.
  /// Otherwise that is refused, because a mirror that was emptied by mistake looks the same.
  /// @param folder  of the mirror
  /// @param files   paths that start with "/" at the mirror; case does not count in ASCII
  virtual void allowEmpty(const std::string& folder, const std::vector<std::string>& files) {
    static_cast<void>(folder);
    static_cast<void>(files);
  }
};

/// For systems without mirrors.
class NoVolumeMirrors final : public VolumeMirrors {
 public:
  std::vector<VolumeMirror> mirrors() override { return {}; }
  std::optional<Dissenter> settle(const VolumeMirror&) override { return std::nullopt; }
  std::optional<Dissenter> discard(const VolumeMirror&) override { return Dissenter{kDissentNotMounted, ""}; }
};

}  // namespace vorlix
