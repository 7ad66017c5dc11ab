// SPDX-License-Identifier: Apache-2.0
/// @file
/// Companion programs: what the library runs as a child process instead of linking it, such as "registry_lookup".
#pragma once

#include <Vorlix/foundation/Export.h>

#include <optional>
#include <string>

namespace vorlix {

/// Returns the path of a companion program. Absent if there is none.
///
/// A host may ship the program as a resource of its own in the folder "tools/bin" (on Linux, `tools/bin` beside its
/// executable): that one has priority. Otherwise it is the library's own one, `<prefix>/libexec/vorlix-1/NAME`, where
/// the prefix is that of the program or of the shared library that holds the library's code, wherever the installation
/// was moved to, or else the prefix that the library was built for. The environment has no influence.
///
/// Asks the port `HostBundle`, so that a test can put a program of its own in its place.
VORLIX_EXPORT std::optional<std::string> companionProgram(const std::string& name);

}  // namespace vorlix
