// SPDX-License-Identifier: Apache-2.0
//
// Puts the adapters of macOS below the faces' own tests: a simulated machine's ports become the adapters, over
// stand-ins that show that machine. The linker leads both calls here (--wrap), so that the tests stay as they are.
//
// What is no framework's stays the machine's own: children, resources, the log, callers' code, the user, the shell.
#include <CoreFoundation/CoreFoundation.h>

#include "Properties.h"
#include "System.h"
#include "platform/simulated/SimulatedState.h"

#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"

extern "C" {

// vorlix::SimulatedMachine::platform() const, by the name that linkers have for it.
vorlix::Platform __real__ZNK6vorlix16SimulatedMachine8platformEv(const vorlix::SimulatedMachine* machine);

vorlix::Platform __wrap__ZNK6vorlix16SimulatedMachine8platformEv(const vorlix::SimulatedMachine* machine) {
  vorlix::standin::show(*machine);
  vorlix::standin::system().noTimePasses = true;
  vorlix::Platform ports = __real__ZNK6vorlix16SimulatedMachine8platformEv(machine);
  const vorlix::Platform native = vorlix::nativePlatform();
  ports.deviceFile = native.deviceFile;
  ports.diskArbitration = native.diskArbitration;
  ports.runLoops = native.runLoops;
  ports.ioRegistry = native.ioRegistry;
  ports.mountedVolumes = native.mountedVolumes;
  return ports;
}

CFRunLoopRunResult __real_CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds, Boolean returnAfterSource);

// The real loop handles the real sources; as on the simulated machine no time passes, the run is noted, and a simulated
// child's output is read where nothing else was to be handled.
CFRunLoopRunResult __wrap_CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds, Boolean returnAfterSource) {
  if (!vorlix::standin::system().noTimePasses) return __real_CFRunLoopRunInMode(mode, seconds, returnAfterSource);
  const auto state = vorlix::standin::system().state;
  const std::string name = vorlix::standin::textOf(mode);
  state->journal.push_back("run " + name + " " + std::to_string(static_cast<int64_t>(seconds * 1000 + 0.5)));
  const CFRunLoopRunResult result = __real_CFRunLoopRunInMode(mode, 0, returnAfterSource);
  if (result == kCFRunLoopRunHandledSource || name != vorlix::kDefaultRunLoopMode) return result;
  const auto loop = vorlix::makeSimulatedRunLoops(state)->current();
  if (!state->hasPendingRead(*loop)) return result;
  return state->completeRead(*loop) ? kCFRunLoopRunHandledSource : kCFRunLoopRunTimedOut;
}

}  // extern "C"
