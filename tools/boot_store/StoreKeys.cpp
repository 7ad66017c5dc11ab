// SPDX-License-Identifier: Apache-2.0
#include "StoreKeys.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <new>

#include "tools/registry_lookup/Failure.h"

namespace vorlix::registry {
namespace {

constexpr std::string_view kIdentifierForm = "{00000000-0000-0000-0000-000000000000}";

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Names of a store are ASCII.
char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool isSameName(std::string_view left, std::string_view right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](char one, char other) { return lower(one) == lower(other); });
}

}  // namespace

void damagedStore(const std::string& what) {
  if (errno == ENOMEM) throw std::bad_alloc();
  throw Failure("damaged hive: cannot read " + what);
}

HiveHandle openStore(const std::string& path, int flags) {
  errno = 0;
  HiveHandle store(hivex_open(path.c_str(), flags));
  if (!store) damagedStore("its blocks");
  return store;
}

hive_node_h objectsOf(hive_h* store) {
  errno = 0;
  const hive_node_h root = hivex_root(store);
  if (root == 0) damagedStore("its root key");
  const hive_node_h objects = childCalled(store, root, "Objects");
  if (objects == 0) throw Failure("a registry hive, but no boot configuration store: it has no key Objects");
  return objects;
}

hive_node_h childCalled(hive_h* store, hive_node_h parent, std::string_view name) {
  errno = 0;
  const HivePlaces children(hivex_node_children(store, parent));
  if (!children) damagedStore("the keys beside " + std::string(name));
  for (const size_t* child = children.get(); *child != 0; ++child) {
    const auto found = nameOf(store, *child);
    if (found && isSameName(*found, name)) return *child;
  }
  return 0;
}

hive_value_h valueCalled(hive_h* store, hive_node_h key, std::string_view name) {
  errno = 0;
  const HivePlaces values(hivex_node_values(store, key));
  if (!values) damagedStore("the values beside " + std::string(name));
  for (const size_t* value = values.get(); *value != 0; ++value) {
    errno = 0;
    const HiveText found(hivex_value_key(store, *value));
    if (!found && errno == ENOMEM) throw std::bad_alloc();
    if (found && isSameName({found.get(), hivex_value_key_len(store, *value)}, name)) return *value;
  }
  return 0;
}

std::optional<std::string> nameOf(hive_h* store, hive_node_h key) {
  errno = 0;
  const HiveText name(hivex_node_name(store, key));
  if (name) return std::string(name.get(), hivex_node_name_len(store, key));
  if (errno == EILSEQ || errno == EINVAL) return std::nullopt;
  damagedStore("the name of a key");
}

bool isIdentifier(std::string_view text) {
  return std::equal(text.begin(), text.end(), kIdentifierForm.begin(), kIdentifierForm.end(),
                    [](char c, char form) { return form == '0' ? isHexDigit(c) : c == form; });
}

std::optional<uint32_t> eightDigits(std::string_view text) {
  constexpr size_t kDigits = 8;
  if (text.size() != kDigits || !std::all_of(text.begin(), text.end(), isHexDigit)) return std::nullopt;
  uint32_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, 16);
  return number;
}

}  // namespace vorlix::registry
