// SPDX-License-Identifier: Apache-2.0
//
// Calls on open descriptors in which the systems differ. Each system's folder defines them.
#pragma once

#include <Vorlix/platform/DeviceFile.h>

#include <cstdint>
#include <optional>

namespace vorlix {

/// Writes a descriptor's data to the medium, including the medium's own cache if the system has a call for that.
/// @return 0, or -1 with `errno` set.
int syncDescriptor(int descriptor);

/// Likewise for the content alone: without the file's times, for example.
int syncContent(int descriptor);

/// Has the system begin to bring what was written to the medium, as far as programs can ask for that, so that the next
/// sync is short. Its result tells of failures, too.
void startWriting(int descriptor, uint64_t offset, uint64_t count);

/// Makes the next read of these bytes read the medium, as far as programs can ask the system for that.
void forgetCached(int descriptor, uint64_t offset, uint64_t count);

/// Returns the identity of the bytes that begin `offset` bytes into an open device node or image file.
std::optional<DeviceIdentity> identityOf(int descriptor, uint64_t offset);

}  // namespace vorlix
