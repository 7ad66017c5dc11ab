// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: volumes which the system does not mount itself: folders that stand for them, and single files of them. Systems
/// that mount every volume of a disk have none.
#pragma once

#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/DiskChange.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// A folder that a volume's files were copied to, until what is changed there is written back.
struct VolumeMirror {
  enum class Volume {
    there,    ///< it is mounted: unmounting writes it back
    gone,     ///< no device of its name is there
    replaced  ///< the device of its name holds another volume
  };

  std::string device;  ///< the name of the device it was mounted from
  std::string folder;
  Volume volume = Volume::there;
  std::vector<std::string> changes;  ///< what is not on the volume: "new /a", "changed /b", "removed /c"
};

/// The files of a volume that is not mounted, reached where they lie. The disk is locked while the object lives, and
/// nobody else of this user mounts the volume; a caller that wants to mount it lets the object go first.
class UnmountedVolume {
 public:
  struct Item {
    std::string name;  ///< as it is spelled in its folder; UTF-8
    bool isFolder = false;
    uint64_t size = 0;  ///< of a file, in bytes
  };

  virtual ~UnmountedVolume() = default;

  /// What is in a folder. @param folder  "" for the root, else like "/EFI/Boot" in the spelling of the volume.
  virtual std::vector<Item> itemsIn(const std::string& folder) const = 0;

  /// The whole of a file. @return why it cannot be read.
  virtual std::optional<Dissenter> read(const std::string& file, std::vector<uint8_t>& bytes) const = 0;

  /// How many bytes a file of that path can have, the room of the one that is there included.
  virtual uint64_t roomFor(const std::string& file) const = 0;

  /// Replaces the content of a file, or makes one, with a journal, so that an interruption leaves the whole old or the
  /// whole new file, and compares it with what is then on the medium. A new file is in a folder, not in the root;
  /// kDissentUnsupported if only the mounted volume can be given one of that name.
  /// @param backup  where the journal is kept
  /// @param kept    receives the folder of the backup; empty if there is none
  /// @param state   receives what is on the disk after a failure; empty if nothing was written
  /// @return why it was not written; absent for success.
  virtual std::optional<Dissenter> write(const std::string& file, const std::vector<uint8_t>& bytes,
                                         const ChangeBackup& backup, std::string& kept, std::string& state) = 0;
};

class VolumeMirrors {
 public:
  virtual ~VolumeMirrors() = default;

  /// A volume whose files can be read and written without mounting it. Null with no `refusal` where the volume is
  /// mounted, or has to be; null with one where nothing can be done with it now.
  virtual std::unique_ptr<UnmountedVolume> openUnmounted(const std::string& device, std::optional<Dissenter>& refusal) {
    static_cast<void>(device);
    refusal.reset();
    return nullptr;
  }

  /// Those of this user, in the order in which they were made.
  virtual std::vector<VolumeMirror> mirrors() = 0;

  /// Finishes what an unmount that was cut off began to write to the mirror's volume, so that `changes` of mirrors()
  /// are afterwards what the volume really lacks. @return why it cannot be finished; absent for success, or nothing to
  /// do.
  virtual std::optional<Dissenter> settle(const VolumeMirror& mirror) = 0;

  /// Removes a mirror with all that was changed in it. @return why it was refused; absent for success.
  virtual std::optional<Dissenter> discard(const VolumeMirror& mirror) = 0;

  /// Opens a volume that is not mounted, to look at its files only: nothing is locked, and write() of the result always
  /// refuses. Returns null without a `refusal` if the volume is mounted or the system has no such way, and null with
  /// one if the volume cannot be read.
  virtual std::unique_ptr<UnmountedVolume> openToRead(const std::string& device, std::optional<Dissenter>& refusal) {
    static_cast<void>(device);
    refusal.reset();
    return nullptr;
  }
};

/// Where there are none.
class NoVolumeMirrors final : public VolumeMirrors {
 public:
  std::vector<VolumeMirror> mirrors() override { return {}; }
  std::optional<Dissenter> settle(const VolumeMirror&) override { return std::nullopt; }
  std::optional<Dissenter> discard(const VolumeMirror&) override { return Dissenter{kDissentNotMounted, ""}; }
};

}  // namespace vorlix
