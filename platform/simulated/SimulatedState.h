// SPDX-License-Identifier: Apache-2.0
//
// The state of a simulated machine, which its ports share.
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
  std::weak_ptr<const DeviceLock> ownLock;  // owned by the handles that hold the lock
};

/// The bytes of a disk that belong to a device name.
struct SimulatedWindow {
  std::string disk;
  uint64_t offset = 0;
  uint64_t size = 0;

  /// Returns how many of `count` bytes at `from` exist.
  size_t inside(uint64_t from, size_t count) const;
};

struct DeviceFault {
  int error = 0;
  unsigned successesLeft = 0;
};

/// What disk arbitration reports for a device.
struct ArbitrationView {
  std::optional<SimulatedVolume> volume;
  std::map<std::string, std::optional<Value>> descriptionChanges;  ///< absent: the key is removed
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

/// A mount or unmount that was requested and not carried out yet.
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

/// A read of a child's output that the loop will complete.
struct PendingRead {
  const void* reader = nullptr;  ///< the output; its destructor removes the read
  const void* child = nullptr;   ///< the child whose output it is
  const RunLoop* loop = nullptr;
  std::function<bool()> isReady;
  std::function<size_t()> place;  ///< the place of the next piece among all that the child will still write
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
  std::multimap<std::string, std::string> devicesByMountPath;  // including those of replaced volumes
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

  /// Returns the device with a name, with or without "/dev/". @throws std::invalid_argument if there is none.
  const SimulatedWindow& device(const std::string& name) const;

  /// Returns what disk arbitration reports for that device. It is created on first use.
  ArbitrationView& view(const std::string& name);

  /// Writes an operation on a device to the journal and sets `errno`. @return 0 if the operation succeeds; otherwise
  /// `refusal`, or the error that was set with SimulatedMachine::fail().
  int note(Operation operation, const std::string& name, const std::string& detail, int refusal = 0);

  /// Mounts or unmounts. @return why it was refused; absent for success.
  std::optional<Dissenter> carryOut(const MountRequest& request);

  /// Returns whether a read of a child's output is pending on that loop.
  bool hasPendingRead(const RunLoop& loop) const;

  /// Completes one pending read; of the reads from one child, the one whose piece comes first. @return whether there
  /// was a read that could be completed.
  bool completeRead(const RunLoop& loop);
};

/// Returns a device name without "/dev/", which may precede it more than once.
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
