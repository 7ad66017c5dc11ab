// SPDX-License-Identifier: Apache-2.0
//
// Modules of the library: what only few calls need and what takes long to load. They lie in a folder with the library's
// major version in its name, so that both sides of a call into a module come from one build.
#pragma once

namespace vorlix {

/// Loads a module, which stays loaded, and returns what it exports by that name. Null if there is no module that can be
/// loaded; the system's log has the reason then.
/// @param file     the module's file name, such as "signing.so".
/// @param purpose  what cannot be done without the module, for the log: "no signature can be checked".
void* entryOfModule(const char* file, const char* name, const char* purpose);

}  // namespace vorlix
