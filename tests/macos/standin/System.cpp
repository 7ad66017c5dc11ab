// SPDX-License-Identifier: Apache-2.0
#include "System.h"

#include <gtest/gtest.h>

#include "platform/simulated/SimulatedState.h"

// Fills released memory with garbage, so that Core Foundation fails on an object that is used after its release.
extern "C" const char* __asan_default_options() {
  return "detect_leaks=1:max_malloc_fill_size=4096:malloc_fill_byte=0:max_free_fill_size=4096:free_fill_byte=190:"
         "detect_stack_use_after_return=1";
}

namespace vorlix::standin {
namespace {

// Reaches the private state of a machine: an explicit instantiation may name private members.
struct StateOf {
  friend std::shared_ptr<SimulatedState> memberOf(StateOf, const SimulatedMachine& machine);
};
template <std::shared_ptr<SimulatedState> SimulatedMachine::*kMember>
struct Reached {
  friend std::shared_ptr<SimulatedState> memberOf(StateOf, const SimulatedMachine& machine) { return machine.*kMember; }
};
template struct Reached<&SimulatedMachine::state_>;
std::shared_ptr<SimulatedState> memberOf(StateOf, const SimulatedMachine& machine);

const SimulatedMachine& usualMachine() {
  static auto* const machine = [] {
    auto* const made = new SimulatedMachine;
    made->addDisk("disk0", 8 << 20, 4096);
    made->addSlice("disk0", 1, 6, 250);
    made->addSlice("disk0", 2, 256, 1000);
    made->setVolume("disk0s2", {"apfs", "Macintosh HD", std::nullopt, "/", true});
    made->addMountedVolume({"Macintosh HD", "/", "/dev/disk0s2", 4096000, 1024000});
    made->addMountedVolume({"devfs", "/dev", "devfs", 0, 0});
    made->addDisk("disk4", 1 << 20, 512);
    made->addSlice("disk4", 1, 40, 1000);
    made->setVolume("disk4s1", {"msdos", "STICK", std::nullopt, "/Volumes/STICK", true});
    made->addMountedVolume({"STICK", "/Volumes/STICK", "msdos://disk4s1/STICK", 512000, 256000});
    made->addMountedVolume({"share", "/Volumes/share", "//me@server/share", 1000, 10});
    return made;
  }();
  return *machine;
}

// Fails a test that leaves objects behind.
class Account final : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo&) override { before_ = live(); }
  void OnTestEnd(const testing::TestInfo&) override {
    for (const auto& [kind, count] : live()) {
      const int left = count - before_[kind];
      if (left != 0) ADD_FAILURE() << left << " object(s) left over: " << kind;
    }
    showUsual();
  }

 private:
  std::map<std::string, int> before_;
};

[[maybe_unused]] const bool isWatched = [] {
  testing::UnitTest::GetInstance()->listeners().Append(new Account);
  return true;
}();

}  // namespace

std::shared_ptr<SimulatedState> stateOf(const SimulatedMachine& machine) {
  return memberOf(StateOf(), machine);
}

System& system() {
  static auto* const shown = [] {
    auto* const made = new System;
    made->state = stateOf(usualMachine());
    return made;
  }();
  return *shown;
}

void show(const SimulatedMachine& machine) {
  const uint64_t generation = system().registryGeneration;
  system() = System();
  system().state = stateOf(machine);
  system().registryGeneration = generation;
}

void showUsual() {
  show(usualMachine());
}

bool isMounted(const std::string& bareName) {
  const auto view = system().state->views.find(bareName);
  return view != system().state->views.end() && view->second.volume && view->second.volume->mounted;
}

std::map<std::string, int>& live() {
  static auto* const counts = new std::map<std::string, int>;
  return *counts;
}

void report(const std::string& misuse) {
  ADD_FAILURE() << misuse;
}

}  // namespace vorlix::standin
