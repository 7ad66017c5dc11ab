// SPDX-License-Identifier: Apache-2.0
//
// The Mac behind the stand-ins: a simulated machine, the state that the kernel and its services add to it, and a count
// of the objects that callers hold.
//
// The stand-ins follow the published sources of xnu (open, fcntl, special files), IOStorageFamily (disk nodes),
// DiskArbitration, IOKitUser and copyfile. None of their code is copied.
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

  /// If not 0, disk arbitration answers every mount and unmount with this status before the call returns.
  int32_t requestRefusal = 0;

  /// Disk arbitration carries out requests at once instead of when the loop runs.
  bool arbitrationIsQuick = false;

  /// Stale free space in the list of mounts, by mount path.
  std::map<std::string, uint64_t> staleFree;

  /// The disks' driver does not support flushing.
  bool cannotFlush = false;

  /// Grows when the registry changes; iterators of an older one are invalid.
  uint64_t registryGeneration = 0;
  /// How many entries an iterator returns before the registry changes.
  std::optional<unsigned> entriesUntilChange;

  /// The lines of the system's log.
  std::vector<std::string> logged;

  /// The journal and the time are those of a simulated machine: a run of a loop is journalled and does not wait. The
  /// adapter's first look at a disk's description, which only tells whether the disk exists, is not journalled.
  bool isSimulation = false;

  /// How many descriptors turned the system's cache off (F_NOCACHE).
  unsigned uncachedDescriptors = 0;
};

/// The system that the stand-ins show. By default a Mac with a disk of two slices, its root volume, a USB stick and a
/// network share.
System& system();

/// Shows another machine and resets everything else.
void show(const SimulatedMachine& machine);

/// Shows the Mac of system() again.
void showUsual();

/// Shows a machine until the object is destroyed.
class Shown {
 public:
  explicit Shown(const SimulatedMachine& machine) { show(machine); }
  ~Shown() { showUsual(); }
  Shown(const Shown&) = delete;
  Shown& operator=(const Shown&) = delete;
};

/// Returns the private state of a machine.
std::shared_ptr<SimulatedState> stateOf(const SimulatedMachine& machine);

/// Whether a device is mounted.
bool isMounted(const std::string& bareName);

/// Counts the objects from Create and Copy functions and from the kernel that nobody has released yet, by kind.
std::map<std::string, int>& live();

/// The tests that the program runs (--gtest_filter) unless the command line or the environment names others.
std::string& usualFilter();

/// Fails the test that runs.
void report(const std::string& misuse);

}  // namespace vorlix::standin
