// SPDX-License-Identifier: Apache-2.0
/// @file
/// A C stream over an open device.
#pragma once

#include <Vorlix/platform/DeviceFile.h>

#include <cstdio>
#include <memory>

namespace vorlix {

/// A stream for reading from the start of `device`. It owns the device; fclose() closes it. Positions past the end can
/// be reached and read as the end of the file. @return the stream, or null with `errno` set.
FILE* streamOver(std::unique_ptr<DeviceHandle> device);

}  // namespace vorlix
