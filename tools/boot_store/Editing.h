// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vorlix::registry {

/// Writes a copy of a store with changes.
/// @param edits   lines (docs/boot-store.md)
/// @param result  path of the copy
/// @throws Failure
void editStore(const std::string& path, const std::string& edits, const std::string& result);

}  // namespace vorlix::registry
