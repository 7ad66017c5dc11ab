// SPDX-License-Identifier: Apache-2.0
//
// CFFileDescriptor. The port of its run-loop source is a counter (eventfd), which Core Foundation reads. A thread
// increments the counter when the descriptor becomes readable.
#include <CoreFoundation/CFFileDescriptor.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "RuntimeObject.h"

namespace vorlix::standin {
namespace {

struct WatchState {
  static constexpr const char* kName = "CFFileDescriptor";
  int descriptor = -1;
  bool closes = false;
  CFFileDescriptorCallBack callout = nullptr;
  void* info = nullptr;
  CFOptionFlags enabled = 0;
  bool isValid = true;
  int port = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  int stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::thread watcher;

  ~WatchState() {
    endWatch();
    close(port);
    close(stop);
  }

  void watch() {
    endWatch();
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    watcher = std::thread([descriptor = descriptor, port = port, stop = stop] {
      pollfd waited[2] = {{descriptor, POLLIN, 0}, {stop, POLLIN, 0}};
      while (poll(waited, 2, -1) < 0 && errno == EINTR) continue;
      if (waited[0].revents != 0) eventfd_write(port, 1);
    });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  void endWatch() {
    if (!watcher.joinable()) return;
    eventfd_write(stop, 1);
    watcher.join();
    eventfd_t ignored = 0;
    eventfd_read(stop, &ignored);
  }
};
using WatchObject = RuntimeObject<CFFileDescriptorRef, WatchState>;

void* portOf(void* info) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(WatchObject::of(info).port));
}

// Calls back once each time callbacks are enabled.
void perform(void* info) {
  WatchState& state = WatchObject::of(info);
  if (!state.isValid || (state.enabled & kCFFileDescriptorReadCallBack) == 0) return;
  state.enabled &= ~kCFFileDescriptorReadCallBack;
  CFRetain(info);
  state.callout(static_cast<CFFileDescriptorRef>(info), kCFFileDescriptorReadCallBack, state.info);
  CFRelease(info);
}

}  // namespace
}  // namespace vorlix::standin

using namespace vorlix::standin;  // NOLINT: the system's names are global

extern "C" {

CFFileDescriptorRef CFFileDescriptorCreate(CFAllocatorRef, CFFileDescriptorNativeDescriptor descriptor,
                                           Boolean closeOnInvalidate, CFFileDescriptorCallBack callout,
                                           const CFFileDescriptorContext* context) {
  if (descriptor < 0) return nullptr;
  auto state = std::make_unique<WatchState>();
  state->descriptor = descriptor;
  state->closes = closeOnInvalidate != 0;
  state->callout = callout;
  state->info = context != nullptr ? context->info : nullptr;
  return WatchObject::create(state.release());
}

void CFFileDescriptorEnableCallBacks(CFFileDescriptorRef watched, CFOptionFlags types) {
  WatchState& state = WatchObject::of(watched);
  state.enabled |= types;
  state.watch();
}

void CFFileDescriptorInvalidate(CFFileDescriptorRef watched) {
  WatchState& state = WatchObject::of(watched);
  state.endWatch();
  if (state.isValid && state.closes) close(state.descriptor);
  state.isValid = false;
}

// The source retains the file descriptor object.
CFRunLoopSourceRef CFFileDescriptorCreateRunLoopSource(CFAllocatorRef, CFFileDescriptorRef watched, CFIndex order) {
  CFRunLoopSourceContext1 context = {};
  context.version = 1;
  context.info = watched;
  context.retain = CFRetain;
  context.release = CFRelease;
  context.getPort = portOf;
  context.perform = perform;
  return CFRunLoopSourceCreate(nullptr, order, reinterpret_cast<CFRunLoopSourceContext*>(&context));
}

}  // extern "C"
