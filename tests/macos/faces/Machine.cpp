// SPDX-License-Identifier: Apache-2.0
//
// Puts the macOS adapters below the library in the unit tests: the linker redirects SimulatedMachine::platform() to
// this file (--wrap). Devices, disk arbitration, run loops, the I/O registry, mounted volumes, code signatures and the
// system's log are the adapters'. What stays simulated: the files at fixed paths and their copies, the host's
// resources, child processes, the shell and the user.
#include <CoreFoundation/CoreFoundation.h>
#include <Vorlix/platform/Platform.h>

#include <cmath>

#include "platform/simulated/SimulatedState.h"
#include "tests/macos/standin/Properties.h"
#include "tests/macos/standin/System.h"

namespace vorlix::standin {

// A member function takes its object as its first argument (Itanium C++ ABI).
Platform simulatedPlatform(const SimulatedMachine* machine) __asm__("__real__ZNK6vorlix16SimulatedMachine8platformEv");
Platform platformOverAdapters(const SimulatedMachine* machine) __asm__(
    "__wrap__ZNK6vorlix16SimulatedMachine8platformEv");

Platform platformOverAdapters(const SimulatedMachine* machine) {
  if (system().state != stateOf(*machine)) {
    show(*machine);
    system().isSimulation = true;
  }
  Platform ports = simulatedPlatform(machine);
  const Platform native = nativePlatform();
  ports.deviceFile = native.deviceFile;
  ports.diskArbitration = native.diskArbitration;
  ports.runLoops = native.runLoops;
  ports.ioRegistry = native.ioRegistry;
  ports.mountedVolumes = native.mountedVolumes;
  ports.codeSigning = native.codeSigning;
  ports.systemLog = native.systemLog;
  return ports;
}

}  // namespace vorlix::standin

using namespace vorlix;           // NOLINT: the system's names are global
using namespace vorlix::standin;  // NOLINT

extern "C" {

SInt32 __real_CFRunLoopRunInMode(CFStringRef mode, CFTimeInterval seconds, Boolean returnAfterSourceHandled);

// Journals the run as the simulated loop does, and does not wait. It handles a source that is ready, or else delivers
// the output of a simulated child.
SInt32 __wrap_CFRunLoopRunInMode(CFStringRef mode, CFTimeInterval seconds, Boolean returnAfterSourceHandled) {
  if (!standin::system().isSimulation) return __real_CFRunLoopRunInMode(mode, seconds, returnAfterSourceHandled);
  const auto state = standin::system().state;
  state->journal.push_back("run " + textOf(mode) + " " + std::to_string(std::lround(seconds * 1000)));
  const auto loop = makeSimulatedRunLoops(state)->current();
  const bool readsHere = CFEqual(mode, kCFRunLoopDefaultMode) && state->hasPendingRead(*loop);
  const SInt32 result = __real_CFRunLoopRunInMode(mode, 0, returnAfterSourceHandled);
  if (result == kCFRunLoopRunHandledSource || !readsHere) return result;
  return state->completeRead(*loop) ? kCFRunLoopRunHandledSource : kCFRunLoopRunTimedOut;
}

}  // extern "C"
