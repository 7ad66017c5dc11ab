// SPDX-License-Identifier: Apache-2.0
//
// What mounting.so exports.
#pragma once

namespace vorlix {

/// A MountCall (platform/linux/MountCall.h) as plain data. Without a driver it stands for an unmount of the folder.
struct PlainMountCall {
  const char* driver;
  const char* source;
  const char* folder;
  const char* options;
  bool onlyWritable;
};

/// A MountOutcome as plain data. A longer text is cut off.
struct PlainMountOutcome {
  int error;
  bool byHelper;
  char text[1024];
};

using MountCallEntry = void(const PlainMountCall& call, PlainMountOutcome& outcome);

inline constexpr const char* kMountCallEntry = "vorlix_mount_call";

}  // namespace vorlix
