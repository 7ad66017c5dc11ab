// SPDX-License-Identifier: Apache-2.0
//
// The keys of a boot configuration store: Objects\{GUID}\Description, Objects\{GUID}\Elements\<type>.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/registry_lookup/Hivex.h"

namespace vorlix::registry {

/// Ends the work after a call of hivex failed; `what` names what the call was about. Throws Failure or std::bad_alloc.
[[noreturn]] void damagedStore(const std::string& what);

/// Opens a store. @param flags  those of hivex_open(). Throws Failure.
HiveHandle openStore(const std::string& path, int flags);

/// The key "Objects" below the root. Throws Failure, also for a hive without one, which is no store.
hive_node_h objectsOf(hive_h* store);

/// Returns the child of that name, in any letter case; 0 if there is none. Throws Failure.
hive_node_h childCalled(hive_h* store, hive_node_h parent, std::string_view name);

/// Returns the value of that name, in any letter case; 0 if there is none. Throws Failure.
hive_value_h valueCalled(hive_h* store, hive_node_h key, std::string_view name);

/// Returns the name of a key; absent for one that has no UTF-8 form. Throws Failure.
std::optional<std::string> nameOf(hive_h* store, hive_node_h key);

/// Whether a text has the form of an object's identifier: "{9dea862c-5cdd-4e70-acc1-f32b344d4795}".
bool isIdentifier(std::string_view text);

/// Returns the number of exactly eight hexadecimal digits; absent for any other text.
std::optional<uint32_t> eightDigits(std::string_view text);

}  // namespace vorlix::registry
