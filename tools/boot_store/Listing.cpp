// SPDX-License-Identifier: Apache-2.0
#include "Listing.h"

#include <Vorlix/foundation/HexDigits.h>
#include <Vorlix/foundation/LittleEndian.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

#include "StoreKeys.h"
#include "tools/registry_lookup/Failure.h"

namespace vorlix::registry {
namespace {

// A store has a few dozen objects and a few hundred bytes an element. A damaged one can name the same key many times.
constexpr size_t kLongestListing = size_t{64} << 20;

constexpr size_t kCellSize = 4;  // bytes of the size field before a cell's data

struct Value {
  hive_type type = hive_t_REG_NONE;
  std::vector<uint8_t> data;
};

Value valueOf(hive_h* store, hive_value_h value) {
  errno = 0;
  size_t length = 0;
  Value result;
  const HiveText data(hivex_value_value(store, value, &result.type, &length));
  if (!data) damagedStore("the bytes of a value");
  const auto* bytes = reinterpret_cast<const uint8_t*>(data.get());
  result.data.assign(bytes, bytes + length);
  return result;
}

std::string eightDigitText(uint32_t number) {
  std::array<uint8_t, 4> bytes = {};
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(number >> (24 - 8 * i));
  return hexText(bytes);
}

// Returns the type of an object; 0 if it does not say one.
uint32_t objectType(hive_h* store, hive_node_h object) {
  const hive_node_h description = childCalled(store, object, "Description");
  const hive_value_h type = description == 0 ? 0 : valueCalled(store, description, "Type");
  if (type == 0) return 0;
  const Value value = valueOf(store, type);
  return value.data.size() == sizeof(uint32_t) ? littleEndian32(value.data.data()) : 0;
}

void addElement(hive_h* store, hive_node_h key, std::string& lines) {
  const auto name = nameOf(store, key);
  const auto type = name ? eightDigits(*name) : std::nullopt;
  const hive_value_h place = type ? valueCalled(store, key, "Element") : 0;
  if (place == 0) return;
  const Value value = valueOf(store, place);
  size_t length = 0;
  const size_t cell = hivex_value_data_cell_offset(store, place, &length);
  // Copied bytewise because a hive may hold a type that the enumeration lacks.
  uint32_t valueType = 0;
  static_assert(sizeof(valueType) == sizeof(value.type));
  std::memcpy(&valueType, &value.type, sizeof(valueType));
  lines += "element " + eightDigitText(*type) + " " + std::to_string(valueType) + " " +
           std::to_string(cell == 0 ? 0 : cell + kCellSize) + " " + hexText(value.data) + "\n";
  if (lines.size() > kLongestListing) throw Failure("damaged hive: it has more elements than any store");
}

void addObject(hive_h* store, hive_node_h object, std::string& lines) {
  const auto name = nameOf(store, object);
  if (!name || !isIdentifier(*name)) return;
  lines += "object " + *name + " " + eightDigitText(objectType(store, object)) + "\n";
  const hive_node_h elements = childCalled(store, object, "Elements");
  if (elements == 0) return;
  errno = 0;
  const HivePlaces keys(hivex_node_children(store, elements));
  if (!keys) damagedStore("the elements of " + *name);
  for (const size_t* key = keys.get(); *key != 0; ++key) addElement(store, *key, lines);
}

}  // namespace

std::string listStore(const std::string& path) {
  const HiveHandle store = openStore(path, 0);
  const hive_node_h objects = objectsOf(store.get());
  errno = 0;
  const HivePlaces keys(hivex_node_children(store.get(), objects));
  if (!keys) damagedStore("its objects");
  std::string lines;
  for (const size_t* key = keys.get(); *key != 0; ++key) addObject(store.get(), *key, lines);
  return lines + "end\n";
}

}  // namespace vorlix::registry
