// SPDX-License-Identifier: Apache-2.0
//
// The registry at one moment: a tree of entries with properties.
#pragma once

#include <Vorlix/platform/IORegistry.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

struct RegistryNode {
  std::string name;
  std::string location;  ///< distinguishes siblings with the same name; may be empty
  std::string className;
  Dictionary properties;
  std::optional<size_t> parent;  ///< index in the tree; absent for the root
};

/// Entries in the order of a walk from the root down. Every entry is in both planes.
using RegistryTree = std::vector<RegistryNode>;

/// Returns whether the entries are in a plane of that name.
bool isRegistryPlane(const std::string& plane);

/// Returns whether an entry is a service with the class and the properties of `matching`. The BSD name is ignored.
bool meetsConditions(const RegistryNode& node, const RegistryMatching& matching);

/// Entries of a tree, by their indices.
struct RegistrySelection {
  std::shared_ptr<const RegistryTree> tree;
  std::vector<size_t> entries;
};

/// Returns an iterator over the entries that `look` finds, which is called when the first entry is requested. The
/// entries keep the tree alive.
std::shared_ptr<RegistryIterator> makeRegistryIterator(std::function<RegistrySelection()> look);

std::shared_ptr<RegistryEntry> makeRegistryEntry(std::shared_ptr<const RegistryTree> tree, size_t index);

}  // namespace vorlix
