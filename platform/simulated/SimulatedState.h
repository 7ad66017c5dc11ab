// SPDX-License-Identifier: Apache-2.0
//
// What a simulated machine is made of, shared by its ports.
#pragma once

#include <Vorlix/platform/ChildProcess.h>
#include <Vorlix/platform/CodeSigning.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/MountedVolumes.h>
#include <Vorlix/platform/RunLoop.h>
#include <Vorlix/platform/simulated/SimulatedHostBundle.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <Vorlix/platform/simulated/SimulatedSystemPaths.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "SimulatedFileTree.h"
#include "SparseBytes.h"

namespace vorlix {

struct SimulatedWhole {
  SparseBytes bytes;
  uint64_t size = 0;
  std::optional<uint32_t> blockSize;
  DeviceLock lockedElsewhere = DeviceLock::none;
  std::weak_ptr<const DeviceLock> ownLock;  // shared by the handles that hold it
};

/// The bytes of a disk that a device name stands for.
struct SimulatedWindow {
  std::string disk;
  uint64_t offset = 0;
  uint64_t size = 0;

  /// How many of `count` bytes at `offset` exist.
  size_t inside(uint64_t from, size_t count) const;
};

struct DeviceFault {
  int error = 0;
  unsigned successesLeft = 0;
};

/// What disk arbitration knows of a device beyond its bytes.
struct ArbitrationView {
  std::optional<SimulatedVolume> volume;
  std::map<std::string, std::optional<Value>> descriptionChanges;  ///< absent: the key is taken away
  bool descriptionHidden = false;
  bool wholeDiskHidden = false;
  std::optional<Dissenter> mountRefusal;
  std::optional<Dissenter> unmountRefusal;
};

using SessionID = uint64_t;

/// A session that is scheduled on a loop in a mode.
struct ScheduledSession {
  SessionID session = 0;
  const RunLoop* loop = nullptr;
  std::string mode;

  friend bool operator==(const ScheduledSession&, const ScheduledSession&) = default;
};

enum class MountAction { mount, unmount };

/// A mount or unmount that has been asked for and not been carried out.
struct MountRequest {
  SessionID session = 0;
  std::string device;
  MountAction action = MountAction::mount;
  DiskCompletion completion;
  unsigned runsLeft = 0;
};

struct RegistryRecord {
  std::string name;
  std::string className;
  Dictionary properties;
  std::map<std::string, std::optional<RegistryEntryID>> parents;
};

struct RegistryFault {
  RegistryCall call = RegistryCall::masterPort;
  KernReturn code = kKernSuccess;
  std::optional<RegistryEntryID> entry;
};

/// A read of a child's output that the loop is to complete.
struct PendingRead {
  const void* reader = nullptr;  ///< the output, which takes its read away before it goes
  const void* child = nullptr;   ///< whose output it is
  const RunLoop* loop = nullptr;
  std::function<bool()> isReady;
  std::function<size_t()> place;  ///< of what it will read among all that the child still writes
  std::function<void()> complete;
};

struct SimulatedState {
  std::map<std::string, SimulatedWhole> disks;
  std::map<std::string, SimulatedWindow> devices;
  std::map<std::pair<std::string, Operation>, DeviceFault> faults;
  std::map<std::string, size_t> writeLimits;
  size_t openCount = 0;

  bool sessionsRefused = false;
  SessionID lastSession = 0;
  std::set<SessionID> openSessions;
  std::map<std::string, ArbitrationView> views;
  std::multimap<std::string, std::string> devicesByMountPath;  // those of replaced volumes included
  std::vector<ScheduledSession> schedule;
  std::vector<MountRequest> requests;
  unsigned completionDelay = 0;
  std::map<std::thread::id, std::unique_ptr<RunLoop>> loops;

  std::vector<RegistryRecord> registry;
  std::vector<RegistryFault> registryFaults;
  size_t heldRegistryEntries = 0;

  SimulatedFileTree files;
  std::map<std::string, std::string> copyFailures;
  std::shared_ptr<SimulatedHostBundle> hostBundle = std::make_shared<SimulatedHostBundle>();

  std::shared_ptr<SimulatedSystemPaths> systemPaths = std::make_shared<SimulatedSystemPaths>();

  std::map<std::string, SimulatedProgram> programs;
  std::vector<PendingRead> reads;

  std::map<int32_t, CodeCheck> codeChecks;

  std::vector<MountedVolume> mountedVolumes;
  uint32_t realUserID = 501;
  int shellStatus = 0;
  std::optional<std::string> decimalSeparator;  // absent: the user's
  std::function<void(std::chrono::milliseconds)> duringPauses;

  std::vector<std::string> journal;

  /// The device of a name with or without "/dev/". @throws std::invalid_argument when there is none.
  const SimulatedWindow& device(const std::string& name) const;

  /// What disk arbitration knows of that device; made on first use.
  ArbitrationView& view(const std::string& name);

  /// Notes an operation on a device and lets it go through (0) or fail: with `refusal`, or with the reason that was set
  /// for it.
  int note(Operation operation, const std::string& name, const std::string& detail, int refusal = 0);

  /// Mounts or unmounts. @return why not, if it is refused.
  std::optional<Dissenter> carryOut(const MountRequest& request);

  /// Whether a read of a child's output is pending on that loop.
  bool hasPendingRead(const RunLoop& loop) const;

  /// Completes one that can be: of one child, that whose piece was given first. @return whether there was one.
  bool completeRead(const RunLoop& loop);
};

/// A device name without "/dev/", which may stand before it more than once.
std::string bareDeviceName(const std::string& name);

std::shared_ptr<DeviceFile> makeSimulatedDeviceFile(std::shared_ptr<SimulatedState> state);
std::shared_ptr<DiskArbitration> makeSimulatedArbitration(std::shared_ptr<SimulatedState> state);
std::shared_ptr<RunLoops> makeSimulatedRunLoops(std::shared_ptr<SimulatedState> state);
std::shared_ptr<IORegistry> makeSimulatedRegistry(std::shared_ptr<SimulatedState> state);
std::shared_ptr<FileCopy> makeSimulatedFileCopy(std::shared_ptr<SimulatedState> state);
std::shared_ptr<ChildProcess> makeSimulatedChildProcess(std::shared_ptr<SimulatedState> state);
std::shared_ptr<CodeSigning> makeSimulatedCodeSigning(std::shared_ptr<SimulatedState> state);
std::shared_ptr<SystemLog> makeSimulatedSystemLog(std::shared_ptr<SimulatedState> state);
std::shared_ptr<MountedVolumes> makeSimulatedMountedVolumes(std::shared_ptr<SimulatedState> state);
std::shared_ptr<UserIdentity> makeSimulatedUserIdentity(std::shared_ptr<SimulatedState> state);
std::shared_ptr<Shell> makeSimulatedShell(std::shared_ptr<SimulatedState> state);
std::shared_ptr<Files> makeSimulatedFiles(std::shared_ptr<SimulatedState> state);
std::shared_ptr<Pauses> makeSimulatedPauses(std::shared_ptr<SimulatedState> state);
std::shared_ptr<UserLocale> makeSimulatedUserLocale(std::shared_ptr<SimulatedState> state);

}  // namespace vorlix
