// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace vorlix::tool {

// The files of the folder completion/, which the build embeds.
extern const char* const kBashCompletion;
extern const char* const kZshCompletion;
extern const char* const kFishCompletion;

}  // namespace vorlix::tool
