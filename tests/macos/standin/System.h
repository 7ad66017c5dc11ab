// SPDX-License-Identifier: Apache-2.0
//
// The Mac that the stand-ins show: a simulated machine, what the kernel and its services add to one, and an account of
// the objects that were handed out.
//
// What is said of the system here was read in its published sources: xnu (open, fcntl, special files), IOStorageFamily
// (disks' nodes), DiskArbitration, IOKitUser, copyfile. None of their code is here.
#pragma once

#include <Vorlix/platform/simulated/SimulatedMachine.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {
struct SimulatedState;
}

namespace vorlix::standin {

struct System {
  std::shared_ptr<SimulatedState> state;

  /// Another process's open file on a node, by bare name.
  std::map<std::string, DeviceLock> openedElsewhere;

  /// What asks disk arbitration to mount or unmount is told at once, and nothing is queued: 0 for what is usual.
  int32_t requestRefusal = 0;

  /// Disk arbitration has done what it was asked for before the asker's loop runs.
  bool arbitrationIsQuick = false;

  /// What is free of a volume in the list at hand, by mount path, where that is stale.
  std::map<std::string, uint64_t> staleFree;

  /// Nodes whose driver has no request for flushing.
  bool cannotFlush = false;

  /// Grows when the registry changes; iterators of an older one are invalid.
  uint64_t registryGeneration = 0;
  /// Entries that an iterator still hands out before the registry changes under it.
  std::optional<unsigned> entriesUntilChange;

  /// The lines of the system's log.
  std::vector<std::string> logged;

  /// The machine of a unit test, whose journal is that of a simulated machine: a run of a loop is noted and does not
  /// wait, and the adapter's first look at a disk, which tells whether there is one, is not noted.
  bool isSimulation = false;

  /// Descriptors that asked the system not to keep what they read or write (F_NOCACHE).
  unsigned uncachedDescriptors = 0;
};

/// The system as it is now. Without a machine of a test's own it is a Mac with a disk of two slices, its root volume,
/// a USB stick and a network share.
System& system();

/// Shows another machine, with nothing else changed from a fresh system.
void show(const SimulatedMachine& machine);

/// Shows the Mac of system() again.
void showUsual();

/// A machine that is shown for the object's life.
class Shown {
 public:
  explicit Shown(const SimulatedMachine& machine) { show(machine); }
  ~Shown() { showUsual(); }
  Shown(const Shown&) = delete;
  Shown& operator=(const Shown&) = delete;
};

/// What belongs to a machine that is not public: its state.
std::shared_ptr<SimulatedState> stateOf(const SimulatedMachine& machine);

/// Whether a mount keeps a device.
bool isMounted(const std::string& bareName);

/// Objects that are held now, by kind: what Create, Copy and the kernel have handed out and nobody has released.
std::map<std::string, int>& live();

/// The tests that the program runs (--gtest_filter) unless the command line or the environment names others.
std::string& usualFilter();

/// Fails the test that runs.
void report(const std::string& misuse);

}  // namespace vorlix::standin
