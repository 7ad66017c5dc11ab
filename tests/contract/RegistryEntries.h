// SPDX-License-Identifier: Apache-2.0
//
// Short functions for queries of an I/O registry.
#pragma once

#include <Vorlix/platform/IORegistry.h>
#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vorlix::test {

using Entries = std::vector<std::shared_ptr<RegistryEntry>>;

inline Entries allOf(const std::shared_ptr<RegistryIterator>& iterator) {
  Entries entries;
  while (iterator != nullptr) {
    auto entry = iterator->next();
    if (entry == nullptr) break;
    entries.push_back(std::move(entry));
  }
  return entries;
}

inline Entries matching(IORegistry& registry, const RegistryMatching& conditions) {
  std::shared_ptr<RegistryIterator> iterator;
  EXPECT_EQ(registry.matchingServices(0, conditions, iterator), kKernSuccess);
  return allOf(iterator);
}

inline Entries named(IORegistry& registry, const std::string& bsdName) {
  return matching(registry, {std::nullopt, bsdName, {}});
}

inline Entries walked(IORegistry& registry, const std::string& plane) {
  std::shared_ptr<RegistryIterator> iterator;
  EXPECT_EQ(registry.createIterator(0, plane, iterator), kKernSuccess);
  return allOf(iterator);
}

inline Dictionary propertiesOf(RegistryEntry& entry) {
  std::optional<Dictionary> properties;
  EXPECT_EQ(entry.copyProperties(properties), kKernSuccess);
  return properties.value_or(Dictionary());
}

inline std::string textOf(RegistryEntry& entry, const std::string& key) {
  return propertiesOf(entry).text(key).value_or("(none)");
}

inline std::vector<std::string> bsdNamesOf(const Entries& entries) {
  std::vector<std::string> names;
  for (const auto& entry : entries) {
    if (const auto name = propertiesOf(*entry).text("BSD Name")) names.push_back(*name);
  }
  return names;
}

inline std::string pathOf(RegistryEntry& entry, const std::string& plane) {
  std::string path;
  EXPECT_EQ(entry.path(plane, path), kKernSuccess);
  return path;
}

}  // namespace vorlix::test
