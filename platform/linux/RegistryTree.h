// SPDX-License-Identifier: Apache-2.0
//
// A registry as it was at one moment: entries with properties, one above the other.
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
  std::string location;  ///< tells siblings of one name apart; may be empty
  std::string className;
  Dictionary properties;
  std::optional<size_t> parent;  ///< index in the tree; absent for the root
};

/// Entries in the order in which a walk from the root down meets them. Every entry is in both planes.
using RegistryTree = std::vector<RegistryNode>;

/// Whether a plane is one that the entries are in.
bool isRegistryPlane(const std::string& plane);

/// Whether an entry is a service that meets the class and the properties of `matching`; its BSD name is not looked at.
bool meetsConditions(const RegistryNode& node, const RegistryMatching& matching);

/// Entries of a tree, by their indices.
struct RegistrySelection {
  std::shared_ptr<const RegistryTree> tree;
  std::vector<size_t> entries;
};

/// Hands out the entries that `look` finds, which is called when the first one is asked for. They keep the tree.
std::shared_ptr<RegistryIterator> makeRegistryIterator(std::function<RegistrySelection()> look);

std::shared_ptr<RegistryEntry> makeRegistryEntry(std::shared_ptr<const RegistryTree> tree, size_t index);

}  // namespace vorlix
