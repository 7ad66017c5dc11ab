// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace vorlix::tool {

/// Returns the version, and the commit for a build from git: "1.0.0 (commit 0123456789ab, changed)".
const char* versionText();

}  // namespace vorlix::tool
