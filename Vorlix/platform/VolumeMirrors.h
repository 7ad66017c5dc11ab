// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: folders that stand for volumes which the system does not mount itself. Systems that mount every volume of a
/// disk have none.
#pragma once

#include <Vorlix/platform/DiskArbitration.h>

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

class VolumeMirrors {
 public:
  virtual ~VolumeMirrors() = default;

  /// Those of this user, in the order in which they were made.
  virtual std::vector<VolumeMirror> mirrors() = 0;

  /// Finishes what an unmount that was cut off began to write to the mirror's volume, so that `changes` of mirrors()
  /// are afterwards what the volume really lacks. @return why it cannot be finished; absent for success, or nothing to
  /// do.
  virtual std::optional<Dissenter> settle(const VolumeMirror& mirror) = 0;

  /// Removes a mirror with all that was changed in it. @return why it was refused; absent for success.
  virtual std::optional<Dissenter> discard(const VolumeMirror& mirror) = 0;
};

/// Where there are none.
class NoVolumeMirrors final : public VolumeMirrors {
 public:
  std::vector<VolumeMirror> mirrors() override { return {}; }
  std::optional<Dissenter> settle(const VolumeMirror&) override { return std::nullopt; }
  std::optional<Dissenter> discard(const VolumeMirror&) override { return Dissenter{kDissentNotMounted, ""}; }
};

}  // namespace vorlix
