// SPDX-License-Identifier: Apache-2.0
//
// A registry as it was at one moment: entries with properties, one above the other.
#pragma once

#include <Vorlix/platform/IORegistry.h>

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

/// Hands out the entries with these indices. They keep the tree.
std::shared_ptr<RegistryIterator> makeRegistryIterator(std::shared_ptr<const RegistryTree> tree,
                                                       std::vector<size_t> entries);

}  // namespace vorlix
