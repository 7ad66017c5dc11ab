// SPDX-License-Identifier: Apache-2.0
//
// Which Windows a volume holds.
#pragma once

#include <Vorlix/foundation/Value.h>

#include "VolumeView.h"

namespace vorlix::tool {

enum class WindowsIs { absent, installer, installed };

/// Looks for Windows or its installer. Throws Failure if the volume cannot be looked into.
WindowsIs findWindows(VolumeView& view);

/// Returns what QDDeviceManager::versionOfWindowsFromVolume() does, for a volume where Windows is installed. Throws
/// Failure.
/// @param withSetupLog  looks also for what the setup log says, which may be long
Dictionary versionOfWindows(VolumeView& view, bool withSetupLog);

/// Windows 11 has the product name "Windows 10" in its registry; the build number identifies it.
bool isWindows11(const Dictionary& version);

}  // namespace vorlix::tool
