// SPDX-License-Identifier: Apache-2.0
//
// Disk Arbitration's client side and the daemon behind it.
#include <DiskArbitration/DiskArbitration.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <deque>

#include "Properties.h"
#include "RuntimeObject.h"
#include "platform/simulated/SimulatedState.h"

namespace vorlix::standin {
namespace {

using Request = MountRequest;

struct DissenterState {
  static constexpr const char* kName = "DADissenter";
  int32_t status = 0;
  CFStringRef text = nullptr;
  ~DissenterState() {
    if (text != nullptr) CFRelease(text);
  }
};
using DissenterObject = RuntimeObject<DADissenterRef, DissenterState>;

/// A request to the daemon, and the callback for its answer.
struct Asked {
  std::string device;
  MountAction action = MountAction::mount;
  DADiskMountCallback callback = nullptr;
  void* context = nullptr;
  unsigned runsLeft = 0;
  bool isDone = false;
  std::optional<Dissenter> answer;
};

struct SessionState {
  static constexpr const char* kName = "DASession";
  std::shared_ptr<SimulatedState> state;
  std::shared_ptr<DiskArbitrationSession> lookUps;  // its opening and closing are noted
  CFRunLoopSourceRef source = nullptr;
  unsigned scheduled = 0;
  std::deque<Asked> asked;

  // The daemon carries out a request even if nobody waits for its answer.
  ~SessionState() {
    for (Asked& request : asked) carryOut(request);
  }

  void carryOut(Asked& request) const {
    if (request.isDone) return;
    request.isDone = true;
    request.answer = state->carryOut({0, request.device, request.action, nullptr, 0});
  }
};
using SessionObject = RuntimeObject<DASessionRef, SessionState>;

struct DiskState {
  static constexpr const char* kName = "DADisk";
  DASessionRef session = nullptr;
  std::string id;  // a path in the devices' folder
  bool isDescribed = false;
  ~DiskState() { CFRelease(session); }
  std::string name() const { return id.substr(std::strlen("/dev/")); }
};
using DiskObject = RuntimeObject<DADiskRef, DiskState>;

// A disk object can be made from any name (DADisk.c). It retains its session.
DADiskRef createDisk(DASessionRef session, std::string id, bool isDescribed = false) {
  CFRetain(session);
  return DiskObject::create(new DiskState{session, std::move(id), isDescribed});
}

DADissenterRef createDissenter(const Dissenter& dissenter) {
  const CFStringRef text = dissenter.text.empty() ? nullptr : createText(dissenter.text);
  return DissenterObject::create(new DissenterState{dissenter.status, text});
}

// The callback gets a disk and a dissenter that are released after it (DiskArbitration.c).
void callBack(const Asked& request, DASessionRef session) {
  if (request.callback == nullptr) return;
  const DADiskRef disk = createDisk(session, "/dev/" + request.device);
  const DADissenterRef dissenter = request.answer ? createDissenter(*request.answer) : nullptr;
  request.callback(disk, dissenter, request.context);
  if (dissenter != nullptr) CFRelease(dissenter);
  CFRelease(disk);
}

void answerNext(void* info) {
  auto* const session = static_cast<DASessionRef>(info);
  SessionState& state = SessionObject::of(session);
  if (state.asked.empty()) return;
  Asked& next = state.asked.front();
  if (next.runsLeft > 0) {
    --next.runsLeft;
    CFRunLoopSourceSignal(state.source);
    return;
  }
  CFRetain(session);
  state.carryOut(next);
  const Asked request = std::move(next);
  state.asked.pop_front();
  if (!state.asked.empty() && state.source != nullptr) CFRunLoopSourceSignal(state.source);
  callBack(request, session);
  CFRelease(session);
}

void queueRequest(DADiskRef disk, Asked request) {
  DiskState& target = DiskObject::of(disk);
  SessionState& session = SessionObject::of(target.session);
  request.device = target.name();
  if (system().requestRefusal != 0) {
    // If the request cannot be queued, the framework calls back before the call returns (DiskArbitration.c).
    request.answer = Dissenter{system().requestRefusal, ""};
    callBack(request, target.session);
    return;
  }
  request.runsLeft = session.state->completionDelay;
  if (!session.state->devices.contains(request.device)) {
    request.isDone = true;
    request.answer = Dissenter{kDissentNotFound, ""};
  }
  session.asked.push_back(std::move(request));
  if (session.scheduled == 0 || system().arbitrationIsQuick) session.carryOut(session.asked.back());
  if (session.source != nullptr) CFRunLoopSourceSignal(session.source);
}

void noteRequest(const DiskState& disk, const char* what, CFStringRef* arguments) {
  std::string line = what + disk.name();
  for (; arguments != nullptr && *arguments != nullptr; ++arguments) line += " " + textOf(*arguments);
  SessionObject::of(disk.session).state->journal.push_back(std::move(line));
}

}  // namespace
}  // namespace vorlix::standin

using namespace vorlix;           // NOLINT: the system's names are global
using namespace vorlix::standin;  // NOLINT

extern "C" {

CFTypeID DASessionGetTypeID() {
  return SessionObject::typeID();
}

CFTypeID DADiskGetTypeID() {
  return DiskObject::typeID();
}

DASessionRef DASessionCreate(CFAllocatorRef) {
  const auto& state = standin::system().state;
  auto lookUps = makeSimulatedArbitration(state)->createSession();
  if (!lookUps) return nullptr;
  return SessionObject::create(new SessionState{state, std::move(lookUps), nullptr, 0, {}});
}

// The first scheduling makes the session's source, which retains the session; the last unscheduling ends it
// (DASession.c). So a session that stays scheduled is never freed.
void DASessionScheduleWithRunLoop(DASessionRef session, CFRunLoopRef runLoop, CFStringRef runLoopMode) {
  SessionState& state = SessionObject::of(session);
  if (++state.scheduled == 1) {
    CFRunLoopSourceContext context = {};
    context.info = session;
    context.retain = CFRetain;
    context.release = CFRelease;
    context.perform = answerNext;
    state.source = CFRunLoopSourceCreate(nullptr, 0, &context);
    if (!state.asked.empty()) CFRunLoopSourceSignal(state.source);
  }
  state.state->journal.push_back("schedule " + textOf(runLoopMode));
  CFRunLoopAddSource(runLoop, state.source, runLoopMode);
}

void DASessionUnscheduleFromRunLoop(DASessionRef session, CFRunLoopRef runLoop, CFStringRef runLoopMode) {
  SessionState& state = SessionObject::of(session);
  if (state.scheduled == 0) {
    report("a session was unscheduled that is not scheduled");
    return;
  }
  state.state->journal.push_back("unschedule " + textOf(runLoopMode));
  CFRunLoopRemoveSource(runLoop, state.source, runLoopMode);
  if (--state.scheduled > 0) return;
  const CFRunLoopSourceRef source = std::exchange(state.source, nullptr);
  CFRunLoopSourceInvalidate(source);
  CFRelease(source);
}

DADiskRef DADiskCreateFromBSDName(CFAllocatorRef, DASessionRef session, const char* name) {
  if (session == nullptr || name == nullptr) return nullptr;
  const std::string given = name;
  return createDisk(session, given.starts_with("/dev/") ? given : "/dev/" + given);
}

// Finds a volume by its mount point only, not by a path below it.
DADiskRef DADiskCreateFromVolumePath(CFAllocatorRef, DASessionRef session, CFURLRef path) {
  char bytes[PATH_MAX] = {};
  if (path == nullptr || !CFURLGetFileSystemRepresentation(path, true, reinterpret_cast<UInt8*>(bytes), PATH_MAX)) {
    return nullptr;
  }
  const auto disk = SessionObject::of(session).lookUps->diskFromVolumePath(URL::fileURLWithPath(bytes));
  return disk ? createDisk(session, "/dev/" + *disk->bsdName()) : nullptr;
}

// The name lives as long as the disk.
const char* DADiskGetBSDName(DADiskRef disk) {
  return DiskObject::of(disk).id.c_str() + std::strlen("/dev/");
}

CFDictionaryRef DADiskCopyDescription(DADiskRef disk) {
  DiskState& state = DiskObject::of(disk);
  const SessionState& session = SessionObject::of(state.session);
  const size_t noted = session.state->journal.size();
  const auto known = session.lookUps->diskFromBSDName(state.name());
  const auto description = known ? known->copyDescription() : std::nullopt;
  const bool isFirstLook = !std::exchange(state.isDescribed, true);
  if (isFirstLook && system().isSimulation) session.state->journal.resize(noted);
  return description ? createDictionary(*description) : nullptr;
}

DADiskRef DADiskCopyWholeDisk(DADiskRef disk) {
  const DiskState& state = DiskObject::of(disk);
  const auto known = SessionObject::of(state.session).lookUps->diskFromBSDName(state.name());
  const auto whole = known ? known->wholeDisk() : nullptr;
  return whole ? createDisk(state.session, "/dev/" + *whole->bsdName(), true) : nullptr;
}

void DADiskMountWithArguments(DADiskRef disk, CFURLRef, DADiskMountOptions, DADiskMountCallback callback, void* context,
                              CFStringRef arguments[]) {
  noteRequest(DiskObject::of(disk), "mount ", arguments);
  queueRequest(disk, {"", MountAction::mount, callback, context, 0, false, std::nullopt});
}

void DADiskUnmount(DADiskRef disk, DADiskUnmountOptions, DADiskUnmountCallback callback, void* context) {
  noteRequest(DiskObject::of(disk), "unmount ", nullptr);
  queueRequest(disk, {"", MountAction::unmount, callback, context, 0, false, std::nullopt});
}

DAReturn DADissenterGetStatus(DADissenterRef dissenter) {
  return DissenterObject::of(dissenter).status;
}

// The caller does not own the text. Null if there is none.
CFStringRef DADissenterGetStatusString(DADissenterRef dissenter) {
  return DissenterObject::of(dissenter).text;
}

}  // extern "C"
