// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: applying an image of a WIM, which holds files, to an NTFS volume that is made for it in a scratch file.
#pragma once

#include <Vorlix/platform/DeviceFile.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace vorlix {

/// Where an NTFS volume will stand. Its boot sector says so.
struct NTFSPlace {
  uint64_t size = 0;          ///< bytes of the slice, which the volume fills
  uint32_t sectorSize = 512;  ///< bytes of the disk's logical sector
  uint64_t firstSector = 0;   ///< where the slice begins on the disk

  friend bool operator==(const NTFSPlace&, const NTFSPlace&) = default;
};

/// One image of a WIM, and the volume that is to be made of it.
struct WimApplication {
  std::string wim;     ///< path of the file
  uint32_t index = 0;  ///< of the image, from 1
  NTFSPlace place;
  std::string scratch;  ///< folder for the scratch file
};

/// Called from time to time. `total` is 0 where it is not known yet. Returns whether to go on.
using WimObserver = std::function<bool(uint64_t done, uint64_t total)>;

struct AppliedWim {
  std::unique_ptr<DeviceHandle> volume;  ///< null if it was not made
  bool isStopped = false;                ///< the observer has said so
  std::string subject;                   ///< of a failure: the WIM, or the folder of the scratch file
  std::string reason;                    ///< for people, without a full stop
};

class WimApplying {
 public:
  virtual ~WimApplying() = default;

  /// Makes an NTFS volume in a sparse file without a name, and applies the image to it: files with their streams, hard
  /// links, short names, attributes, times, reparse points and security descriptors. The integrity table of the WIM,
  /// where it has one, and the SHA-1 of every file's content are checked. The file goes when its handle is closed, or
  /// the process ends in any way.
  ///
  /// The same image gives other bytes each time: the volume has another serial number and other times of its own.
  virtual AppliedWim apply(const WimApplication& application, const WimObserver& observer) = 0;
};

/// Where no WIM can be applied.
class NoWimApplying final : public WimApplying {
 public:
  AppliedWim apply(const WimApplication& application, const WimObserver&) override {
    return {nullptr, false, application.wim, "a WIM cannot be applied on this system"};
  }
};

}  // namespace vorlix
