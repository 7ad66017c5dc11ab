// SPDX-License-Identifier: Apache-2.0
#include "Editing.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <new>
#include <sstream>
#include <vector>

#include "StoreKeys.h"
#include "tools/registry_lookup/Failure.h"

namespace vorlix::registry {
namespace {

constexpr uint32_t kDword = hive_t_REG_DWORD;

[[noreturn]] void cannotWrite(const std::string& what) {
  if (errno == ENOMEM) throw std::bad_alloc();
  throw Failure("cannot write " + what + ": " + std::strerror(errno));
}

hive_node_h childMade(hive_h* store, hive_node_h parent, const std::string& name) {
  if (const hive_node_h found = childCalled(store, parent, name)) return found;
  errno = 0;
  const hive_node_h made = hivex_node_add_child(store, parent, name.c_str());
  if (made == 0) cannotWrite(name);
  return made;
}

void setValue(hive_h* store, hive_node_h key, std::string name, uint32_t type, std::vector<char>& data) {
  hive_set_value value = {};
  value.key = name.data();
  std::memcpy(&value.t, &type, sizeof(type));
  value.len = data.size();
  value.value = data.data();
  errno = 0;
  if (hivex_node_set_value(store, key, &value, 0) != 0) cannotWrite(name);
}

std::vector<char> bytesOf(const std::string& hex) {
  std::vector<char> bytes;
  bool isValid = hex.size() % 2 == 0;
  for (size_t i = 0; isValid && i < hex.size(); i += 2) {
    unsigned byte = 0;
    const char* const end = hex.data() + i + 2;
    isValid = std::from_chars(hex.data() + i, end, byte, 16).ptr == end;
    bytes.push_back(static_cast<char>(byte));
  }
  if (!isValid) throw Failure("not hexadecimal: " + hex);
  return bytes;
}

class Editor {
 public:
  explicit Editor(hive_h* store) : store_(store), objects_(objectsOf(store)) {}

  void apply(const std::string& line) {
    std::istringstream words(line);
    std::string verb;
    std::string object;
    std::string type;
    words >> verb >> object >> type;
    const auto number = eightDigits(type);
    const bool isWhole = isIdentifier(object) && (verb == "remove" || number);
    if (isWhole && verb == "remove") {
      removeChild(objects_, object);
    } else if (isWhole && verb == "object") {
      describe(childMade(store_, objects_, object), *number);
    } else if (isWhole && verb == "unset") {
      removeChild(childMade(store_, childMade(store_, objects_, object), "Elements"), type);
    } else if (isWhole && verb == "set") {
      uint32_t valueType = 0;
      std::string hex;
      if (!(words >> valueType)) throw Failure("not an edit: " + line);
      words >> hex;
      std::vector<char> bytes = bytesOf(hex);
      const hive_node_h elements = childMade(store_, childMade(store_, objects_, object), "Elements");
      setValue(store_, childMade(store_, elements, type), "Element", valueType, bytes);
    } else {
      throw Failure("not an edit: " + line);
    }
  }

 private:
  void describe(hive_node_h object, uint32_t type) {
    std::vector<char> bytes;
    for (size_t i = 0; i < sizeof(type); ++i) bytes.push_back(static_cast<char>(type >> (8 * i) & 0xFFU));
    setValue(store_, childMade(store_, object, "Description"), "Type", kDword, bytes);
    childMade(store_, object, "Elements");
  }

  void removeChild(hive_node_h parent, const std::string& name) {
    const hive_node_h child = childCalled(store_, parent, name);
    errno = 0;
    if (child != 0 && hivex_node_delete_child(store_, child) != 0) cannotWrite(name);
  }

  hive_h* store_;
  hive_node_h objects_;
};

}  // namespace

void editStore(const std::string& path, const std::string& edits, const std::string& result) {
  const HiveHandle store = openStore(path, HIVEX_OPEN_WRITE);
  Editor editor(store.get());
  std::istringstream lines(edits);
  for (std::string line; std::getline(lines, line);) editor.apply(line);
  errno = 0;
  if (hivex_commit(store.get(), result.c_str(), 0) != 0) cannotWrite(result);
}

}  // namespace vorlix::registry
