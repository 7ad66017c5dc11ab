// SPDX-License-Identifier: Apache-2.0
#include "RegistryTree.h"

#include <algorithm>
#include <array>
#include <utility>

namespace vorlix {
namespace {

// Each class with its base class.
constexpr std::array<std::pair<const char*, const char*>, 8> kSuperclasses = {
    {{"IOMedia", "IOStorage"},
     {"IOGUIDPartitionScheme", "IOPartitionScheme"},
     {"IOFDiskPartitionScheme", "IOPartitionScheme"},
     {"IOPartitionScheme", "IOStorage"},
     {"IOStorage", "IOService"},
     {"IOBlockStorageDevice", "IOService"},
     {"IOPlatformExpertDevice", "IOService"},
     {"IOService", "IORegistryEntry"}}};

bool isKindOf(std::string className, const std::string& wanted) {
  while (className != wanted) {
    const auto found = std::find_if(kSuperclasses.begin(), kSuperclasses.end(),
                                    [&](const auto& pair) { return className == pair.first; });
    if (found == kSuperclasses.end()) return false;
    className = found->second;
  }
  return true;
}

// No entry here has a list, so lists are compared by identity.
bool areEqual(const Value& left, const Value& right) {
  const auto* const one = std::get_if<std::shared_ptr<const Dictionary>>(&left);
  const auto* const other = std::get_if<std::shared_ptr<const Dictionary>>(&right);
  if (one == nullptr || other == nullptr || *one == nullptr || *other == nullptr) return left == right;
  return std::equal((*one)->values().begin(), (*one)->values().end(), (*other)->values().begin(),
                    (*other)->values().end(), [](const auto& first, const auto& second) {
                      return first.first == second.first && areEqual(first.second, second.second);
                    });
}

// Returns "name@location" with ":" instead of "/", which separates the steps of a path.
std::string pathStep(const RegistryNode& node) {
  std::string step = node.location.empty() ? node.name : node.name + "@" + node.location;
  std::replace(step.begin(), step.end(), '/', ':');
  return step;
}

class TreeEntry final : public RegistryEntry {
 public:
  TreeEntry(std::shared_ptr<const RegistryTree> tree, size_t index) : tree_(std::move(tree)), index_(index) {}

  std::optional<Value> property(const std::string& key) override { return node().properties.value(key); }

  KernReturn copyProperties(std::optional<Dictionary>& properties) override {
    properties = node().properties;
    return kKernSuccess;
  }

  KernReturn parent(const std::string& plane, std::shared_ptr<RegistryEntry>& parent) override {
    parent.reset();
    if (!isRegistryPlane(plane) || !node().parent) return kKernFailure;
    parent = std::make_shared<TreeEntry>(tree_, *node().parent);
    return kKernSuccess;
  }

  KernReturn path(const std::string& plane, std::string& path) override {
    if (!isRegistryPlane(plane)) return kKernFailure;
    std::string steps;
    for (const RegistryNode* entry = &node(); entry->parent; entry = &(*tree_)[*entry->parent]) {
      steps = "/" + pathStep(*entry) + steps;
    }
    path = plane + ":" + (steps.empty() ? "/" : steps);
    return kKernSuccess;
  }

 private:
  const RegistryNode& node() const { return (*tree_)[index_]; }

  std::shared_ptr<const RegistryTree> tree_;
  size_t index_;
};

class TreeIterator final : public RegistryIterator {
 public:
  explicit TreeIterator(std::function<RegistrySelection()> look) : look_(std::move(look)) {}

  std::shared_ptr<RegistryEntry> next() override {
    if (!selection_) selection_ = look_();
    if (position_ == selection_->entries.size()) return nullptr;
    return std::make_shared<TreeEntry>(selection_->tree, selection_->entries[position_++]);
  }

 private:
  std::function<RegistrySelection()> look_;
  std::optional<RegistrySelection> selection_;
  size_t position_ = 0;
};

}  // namespace

bool isRegistryPlane(const std::string& plane) {
  return plane == kServicePlane || plane == kDeviceTreePlane;
}

bool meetsConditions(const RegistryNode& node, const RegistryMatching& matching) {
  if (!isKindOf(node.className, matching.className.value_or("IOService"))) return false;
  if (!isKindOf(node.className, "IOService")) return false;
  const auto& wanted = matching.properties.values();
  return std::all_of(wanted.begin(), wanted.end(), [&](const auto& property) {
    const std::optional<Value> value = node.properties.value(property.first);
    return value && areEqual(*value, property.second);
  });
}

std::shared_ptr<RegistryIterator> makeRegistryIterator(std::function<RegistrySelection()> look) {
  return std::make_shared<TreeIterator>(std::move(look));
}

std::shared_ptr<RegistryEntry> makeRegistryEntry(std::shared_ptr<const RegistryTree> tree, size_t index) {
  return std::make_shared<TreeEntry>(std::move(tree), index);
}

}  // namespace vorlix
