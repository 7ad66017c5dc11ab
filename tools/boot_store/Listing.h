// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vorlix::registry {

/// Returns the objects and elements of a store as lines (docs/boot-store.md). Opens the store for reading only. Throws
/// Failure.
std::string listStore(const std::string& path);

}  // namespace vorlix::registry
