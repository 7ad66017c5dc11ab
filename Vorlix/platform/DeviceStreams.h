// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: C streams over open devices.
#pragma once

#include <Vorlix/platform/DeviceFile.h>

#include <cstdio>
#include <memory>

namespace vorlix {

class DeviceStreams {
 public:
  virtual ~DeviceStreams() = default;

  /// Opens a stream for reading from the start of `device`. It owns the device; fclose() closes it. Positions past the
  /// end can be reached and read as the end of the file.
  /// @return the stream, or null with `errno` set; the device is then closed.
  virtual FILE* streamOver(std::unique_ptr<DeviceHandle> device) = 0;
};

}  // namespace vorlix
