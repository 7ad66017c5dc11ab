// SPDX-License-Identifier: Apache-2.0
//
// The I/O registry of the simulated machine.
#include <algorithm>

#include "SimulatedState.h"

namespace vorlix {
namespace {

constexpr MasterPort kPort = 1;

std::optional<KernReturn> faultOf(const SimulatedState& state, RegistryCall call,
                                  std::optional<RegistryEntryID> entry = std::nullopt) {
  const auto found = std::find_if(
      state.registryFaults.rbegin(), state.registryFaults.rend(),
      [&](const RegistryFault& fault) { return fault.call == call && (!fault.entry || fault.entry == entry); });
  if (found == state.registryFaults.rend()) return std::nullopt;
  return found->code;
}

bool isInPlane(const SimulatedState& state, RegistryEntryID entry, const std::string& plane) {
  return entry < state.registry.size() && state.registry[entry].parents.contains(plane);
}

// Absent for a root, and for an entry that is not in the plane.
std::optional<RegistryEntryID> parentOf(const SimulatedState& state, RegistryEntryID entry, const std::string& plane) {
  if (!isInPlane(state, entry, plane)) return std::nullopt;
  const std::optional<RegistryEntryID> parent = state.registry[entry].parents.at(plane);
  // A parent is added before its children, so this cannot loop.
  return parent && *parent < entry && isInPlane(state, *parent, plane) ? parent : std::nullopt;
}

void appendBelow(const SimulatedState& state, const std::string& plane, std::optional<RegistryEntryID> parent,
                 std::vector<RegistryEntryID>& entries) {
  for (RegistryEntryID entry = 0; entry < state.registry.size(); ++entry) {
    if (!isInPlane(state, entry, plane) || parentOf(state, entry, plane) != parent) continue;
    entries.push_back(entry);
    appendBelow(state, plane, entry, entries);
  }
}

bool matches(const RegistryRecord& record, const RegistryMatching& matching) {
  if (!record.parents.contains(kServicePlane)) return false;
  if (matching.className && *matching.className != record.className) return false;
  if (matching.bsdName && record.properties.text("BSD Name") != matching.bsdName) return false;
  const auto& wanted = matching.properties.values();
  return std::all_of(wanted.begin(), wanted.end(),
                     [&](const auto& property) { return record.properties.value(property.first) == property.second; });
}

class SimulatedEntry final : public RegistryEntry {
 public:
  SimulatedEntry(std::shared_ptr<SimulatedState> state, RegistryEntryID id) : state_(std::move(state)), id_(id) {
    ++state_->heldRegistryEntries;
  }
  ~SimulatedEntry() override { --state_->heldRegistryEntries; }
  SimulatedEntry(const SimulatedEntry&) = delete;
  SimulatedEntry& operator=(const SimulatedEntry&) = delete;

  std::optional<Value> property(const std::string& key) override { return record().properties.value(key); }

  KernReturn copyProperties(std::optional<Dictionary>& properties) override {
    if (const auto fault = faultOf(*state_, RegistryCall::copyProperties, id_)) return *fault;
    properties = record().properties;
    return kKernSuccess;
  }

  KernReturn parent(const std::string& plane, std::shared_ptr<RegistryEntry>& parent) override {
    parent.reset();
    if (const auto fault = faultOf(*state_, RegistryCall::parent, id_)) return *fault;
    const std::optional<RegistryEntryID> above = parentOf(*state_, id_, plane);
    if (!above) return kKernFailure;
    parent = std::make_shared<SimulatedEntry>(state_, *above);
    return kKernSuccess;
  }

  KernReturn path(const std::string& plane, std::string& path) override {
    if (const auto fault = faultOf(*state_, RegistryCall::path, id_)) return *fault;
    if (!isInPlane(*state_, id_, plane)) return kKernFailure;
    std::string names;
    for (std::optional<RegistryEntryID> entry = id_; entry; entry = parentOf(*state_, *entry, plane)) {
      names.insert(0, "/" + state_->registry[*entry].name);
    }
    path = plane + ":" + names;
    return kKernSuccess;
  }

 private:
  const RegistryRecord& record() const { return state_->registry[id_]; }

  std::shared_ptr<SimulatedState> state_;
  RegistryEntryID id_;
};

class SimulatedIterator final : public RegistryIterator {
 public:
  SimulatedIterator(std::shared_ptr<SimulatedState> state, std::vector<RegistryEntryID> entries)
      : state_(std::move(state)), entries_(std::move(entries)) {}

  std::shared_ptr<RegistryEntry> next() override {
    if (position_ == entries_.size()) return nullptr;
    return std::make_shared<SimulatedEntry>(state_, entries_[position_++]);
  }

 private:
  std::shared_ptr<SimulatedState> state_;
  std::vector<RegistryEntryID> entries_;
  size_t position_ = 0;
};

class SimulatedRegistry final : public IORegistry {
 public:
  explicit SimulatedRegistry(std::shared_ptr<SimulatedState> state) : state_(std::move(state)) {}

  KernReturn masterPort(MasterPort& port) override {
    state_->journal.push_back("registry port");
    if (const auto fault = faultOf(*state_, RegistryCall::masterPort)) return *fault;
    port = kPort;
    return kKernSuccess;
  }

  KernReturn createIterator(MasterPort, const std::string& plane,
                            std::shared_ptr<RegistryIterator>& iterator) override {
    state_->journal.push_back("registry iterate " + plane);
    if (const auto fault = faultOf(*state_, RegistryCall::createIterator)) return *fault;
    std::vector<RegistryEntryID> entries;
    appendBelow(*state_, plane, std::nullopt, entries);
    iterator = std::make_shared<SimulatedIterator>(state_, std::move(entries));
    return kKernSuccess;
  }

  KernReturn matchingServices(MasterPort, const RegistryMatching& matching,
                              std::shared_ptr<RegistryIterator>& iterator) override {
    std::string line = "registry match";
    if (matching.className) line += " class " + *matching.className;
    if (matching.bsdName) line += " BSD " + *matching.bsdName;
    for (const auto& property : matching.properties.values()) line += " with " + property.first;
    state_->journal.push_back(std::move(line));
    if (const auto fault = faultOf(*state_, RegistryCall::matchingServices)) return *fault;
    std::vector<RegistryEntryID> entries;
    for (RegistryEntryID entry = 0; entry < state_->registry.size(); ++entry) {
      if (matches(state_->registry[entry], matching)) entries.push_back(entry);
    }
    iterator = std::make_shared<SimulatedIterator>(state_, std::move(entries));
    return kKernSuccess;
  }

 private:
  std::shared_ptr<SimulatedState> state_;
};

}  // namespace

std::shared_ptr<IORegistry> makeSimulatedRegistry(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedRegistry>(std::move(state));
}

}  // namespace vorlix
