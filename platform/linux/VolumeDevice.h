// SPDX-License-Identifier: Apache-2.0
//
// The device of a volume, opened once. Interrupted changes on it are finished before its bytes are used.
#pragma once

#include <memory>
#include <string>

#include "DeviceNames.h"
#include "Dissenters.h"
#include "platform/posix/FileHandle.h"

namespace vorlix {

class VolumeDevice {
 public:
  /// Opens the device. For writing it also locks the whole disk as long as this object exists.
  Refusal open(const DeviceLocation& location, bool forWriting);

  /// Finishes a change that an earlier process did not finish. Refused if there is one and the device is open only for
  /// reading.
  Refusal settle();

  int descriptor() const { return descriptor_; }
  Extent window() const { return window_; }
  DeviceHandle& handle() { return *handle_; }
  const std::string& name() const { return name_; }  ///< a name that leads to the device

 private:
  std::unique_ptr<FileHandle> handle_;
  int descriptor_ = -1;  // owned by the handle
  Extent window_;
  std::string name_;
  bool forWriting_ = false;
};

/// Finishes interrupted changes on the device. Opens it for writing only if there is one.
Refusal settleVolume(const DeviceLocation& location);

}  // namespace vorlix
