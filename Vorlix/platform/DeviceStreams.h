// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: C streams over open devices.
#pragma once

#include <Vorlix/platform/DeviceFile.h>

#include <cstdio>
#include <memory>

namespace vorlix {

/// Makes streams over open devices.
class DeviceStreams {
 public:
  virtual ~DeviceStreams() = default;

  /// Opens a stream that reads from the start of `device`. The stream owns the device; fclose() closes both. Seeking
  /// past the end succeeds, and reading there returns the end of the file.
  /// @return the stream, or null with `errno` set; the device is closed then.
  virtual FILE* streamOver(std::unique_ptr<DeviceHandle> device) = 0;
};

}  // namespace vorlix
