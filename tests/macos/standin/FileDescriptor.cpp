// SPDX-License-Identifier: Apache-2.0
//
// CFFileDescriptor over a source of the run loop that has the descriptor for its port, as Core Foundation has on this
// system.
#include <CoreFoundation/CFFileDescriptor.h>
#include <poll.h>
#include <unistd.h>

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
};
using WatchObject = RuntimeObject<CFFileDescriptorRef, WatchState>;

void* portOf(void* info) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(WatchObject::of(info).descriptor));
}

// Calls once for each time that callbacks were enabled.
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
  return WatchObject::create(new WatchState{descriptor, closeOnInvalidate != 0, callout,
                                            context != nullptr ? context->info : nullptr, 0, true});
}

void CFFileDescriptorEnableCallBacks(CFFileDescriptorRef watched, CFOptionFlags types) {
  WatchObject::of(watched).enabled |= types;
}

void CFFileDescriptorInvalidate(CFFileDescriptorRef watched) {
  WatchState& state = WatchObject::of(watched);
  if (state.isValid && state.closes) close(state.descriptor);
  state.isValid = false;
}

// The source holds what is watched.
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
