// SPDX-License-Identifier: Apache-2.0
//
// The device of a volume, opened once, with what was cut off on it finished before anybody relies on its bytes.
#pragma once

#include <memory>
#include <string>

#include "DeviceNames.h"
#include "Dissenters.h"
#include "platform/posix/FileHandle.h"

namespace vorlix {

class VolumeDevice {
 public:
  /// For writing the whole disk is locked as well, for as long as this object lives.
  Refusal open(const DeviceLocation& location, bool forWriting);

  /// Finishes a change that an earlier process began and did not finish. Refused where there is one and the device is
  /// only open for reading.
  Refusal settle();

  int descriptor() const { return descriptor_; }
  Extent window() const { return window_; }
  DeviceHandle& handle() { return *handle_; }
  const std::string& name() const { return name_; }  ///< one that leads to the device again

 private:
  std::unique_ptr<FileHandle> handle_;
  int descriptor_ = -1;  // the handle's
  Extent window_;
  std::string name_;
  bool forWriting_ = false;
};

/// Opens the device and settles it, if there is something to settle; nothing is opened for writing otherwise.
Refusal settleVolume(const DeviceLocation& location);

}  // namespace vorlix
