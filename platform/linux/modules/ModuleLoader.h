// SPDX-License-Identifier: Apache-2.0
//
// Modules: parts of the library with libraries of their own that take long to load, so that only what needs them loads
// them. They lie in the library's own folder.
#pragma once

#include <string>

namespace vorlix {

struct LoadedEntry {
  void* entry = nullptr;  ///< what the module exports; null where it cannot be loaded
  std::string name;       ///< of the module, for people
  std::string reason;     ///< why it cannot be loaded
};

/// Loads a module for good, from the places of an installation only. For the super-user, one that others can write to
/// does not count.
/// @param file   its name, "signing.so".
/// @param entry  the name that it exports.
LoadedEntry loadModule(const char* file, const char* entry);

}  // namespace vorlix
