// SPDX-License-Identifier: Apache-2.0
//
// Folders that stand for volumes, for people: what is left over, and throwing it away.
#pragma once

#include <string>

namespace vorlix::tool {

/// Says on standard error which mirrors stand for no volume that is there, and what can be done about each.
void complainOfLeftMirrors();

/// Throws a mirror away after naming what is lost. `mirror` is its folder, the name of that, or its device. Throws
/// Failure.
void discardMirror(const std::string& mirror);

}  // namespace vorlix::tool
