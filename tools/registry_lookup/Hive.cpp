// SPDX-License-Identifier: Apache-2.0
#include "Hive.h"

#include <Vorlix/foundation/Utf8.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>

#include "Failure.h"
#include "Hivex.h"
#include "Names.h"

namespace vorlix::registry {
namespace {

using Text = HiveText;
using Places = HivePlaces;
using Handle = HiveHandle;

// Ends the search after a call of hivex failed; `what` names what the call was to read.
[[noreturn]] void damaged(const std::string& what) {
  if (errno == ENOMEM) throw std::bad_alloc();
  if (errno == ERANGE) throw Failure(what + " are more than can be read");  // hivex's own limit
  throw Failure("damaged hive: cannot read " + what);
}

// A name may hold any UTF-16 code units. If they are not valid UTF-16, the name has no UTF-8 form, and no caller can
// ask for it.
bool isNoText(int error) {
  return error == EILSEQ || error == EINVAL;
}

// hivex has separate functions for the names of keys and those of values.
using NameOf = char*(hive_h*, size_t);
using LengthOfName = size_t(hive_h*, size_t);

// Returns the handle of the key or value called `name`; 0 if none has that name. If a name cannot be read, the search
// fails only if no other name matches.
size_t placeNamed(hive_h* hive, const size_t* places, const std::string& name, NameOf* nameOf,
                  LengthOfName* lengthOfName) {
  const std::u32string wanted = upperCase(name);
  bool unreadable = false;
  for (; *places != 0; ++places) {
    errno = 0;
    const Text found(nameOf(hive, *places));
    if (!found) {
      if (errno == ENOMEM) throw std::bad_alloc();
      unreadable |= !isNoText(errno);
      continue;
    }
    if (upperCase({found.get(), lengthOfName(hive, *places)}) == wanted) return *places;
  }
  if (unreadable) throw Failure("damaged hive: cannot read a name beside \"" + name + "\"");
  return 0;
}

size_t childNamed(hive_h* hive, hive_node_h parent, const std::string& name) {
  errno = 0;
  const Places children(hivex_node_children(hive, parent));
  if (!children) damaged("the keys beside \"" + name + "\"");
  return placeNamed(hive, children.get(), name, hivex_node_name, hivex_node_name_len);
}

size_t valueNamed(hive_h* hive, hive_node_h node, const std::string& name) {
  errno = 0;
  const Places values(hivex_node_values(hive, node));
  if (!values) damaged("the values beside \"" + name + "\"");
  for (const size_t* value = values.get(); *value != 0; ++value) {
    // The call fails if this is not a value; the type itself does not matter.
    if (hivex_value_type(hive, *value, nullptr, nullptr) != 0) damaged("the values beside \"" + name + "\"");
  }
  return placeNamed(hive, values.get(), name, hivex_value_key, hivex_value_key_len);
}

}  // namespace

std::optional<RegistryValue> findValue(const std::string& hive, const std::string& key, const std::string& value) {
  if (!isUtf8(key) || !isUtf8(value)) return std::nullopt;
  errno = 0;
  const Handle handle(hivex_open(hive.c_str(), 0));
  if (!handle) damaged("its blocks");
  errno = 0;
  hive_node_h node = hivex_root(handle.get());
  if (node == 0) damaged("its root key");

  for (size_t start = 0; start < key.size();) {
    const size_t end = std::min(key.find('/', start), key.size());
    if (end > start) {
      node = childNamed(handle.get(), node, key.substr(start, end - start));
      if (node == 0) return std::nullopt;
    }
    start = end + 1;
  }
  const hive_value_h place = valueNamed(handle.get(), node, value);
  if (place == 0) return std::nullopt;

  errno = 0;
  hive_type type = hive_t_REG_NONE;
  size_t length = 0;
  const Text data(hivex_value_value(handle.get(), place, &type, &length));
  if (!data) damaged("the bytes of \"" + value + "\"");
  RegistryValue result = {0, {data.get(), length}};
  // Copied bytewise because a hive may hold a type that the enumeration lacks.
  static_assert(sizeof(type) == sizeof(result.type));
  std::memcpy(&result.type, &type, sizeof(type));
  return result;
}

}  // namespace vorlix::registry
