// SPDX-License-Identifier: Apache-2.0
#include "platform/posix/DescriptorSource.h"

#include <CoreFoundation/CoreFoundation.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "CFOwned.h"

namespace vorlix {
namespace {

// Both kinds of source call their handler once. They copy it first, because it may destroy the source.
class DescriptorWatch final : public LoopSource {
 public:
  DescriptorWatch(int descriptor, std::function<void()> handler) : handler_(std::move(handler)) {
    const CFFileDescriptorContext context = {0, this, nullptr, nullptr, nullptr};
    watched_.reset(CFFileDescriptorCreate(kCFAllocatorDefault, descriptor, false, fire, &context));
    if (watched_) source_.reset(CFFileDescriptorCreateRunLoopSource(kCFAllocatorDefault, watched_.get(), 0));
    if (!source_) throw std::system_error(ENOMEM, std::generic_category(), "run loop source");
    CFRunLoopAddSource(CFRunLoopGetCurrent(), source_.get(), kCFRunLoopDefaultMode);
    CFFileDescriptorEnableCallBacks(watched_.get(), kCFFileDescriptorReadCallBack);
  }
  ~DescriptorWatch() override {
    CFRunLoopSourceInvalidate(source_.get());
    CFFileDescriptorInvalidate(watched_.get());
  }

 private:
  static void fire(CFFileDescriptorRef, CFOptionFlags, void* self) {
    auto* const watch = static_cast<DescriptorWatch*>(self);
    const std::function<void()> handler = watch->handler_;
    CFRunLoopSourceInvalidate(watch->source_.get());
    handler();
  }

  std::function<void()> handler_;
  CFOwned<CFFileDescriptorRef> watched_;
  CFOwned<CFRunLoopSourceRef> source_;
};

// A timer alone does not end a run of the loop, but a handled source does. So the timer signals a source.
class Timer final : public LoopSource {
 public:
  Timer(std::chrono::milliseconds time, std::function<void()> handler) : handler_(std::move(handler)) {
    CFRunLoopSourceContext sourceContext = {};
    sourceContext.info = this;
    sourceContext.perform = perform;
    source_.reset(CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &sourceContext));
    if (!source_) return;
    CFRunLoopTimerContext context = {0, source_.get(), nullptr, nullptr, nullptr};
    const CFAbsoluteTime due = CFAbsoluteTimeGetCurrent() + std::chrono::duration<double>(time).count();
    timer_.reset(CFRunLoopTimerCreate(kCFAllocatorDefault, due, 0, 0, 0, signal, &context));
    if (!timer_) return;
    CFRunLoopAddSource(CFRunLoopGetCurrent(), source_.get(), kCFRunLoopDefaultMode);
    CFRunLoopAddTimer(CFRunLoopGetCurrent(), timer_.get(), kCFRunLoopDefaultMode);
  }
  ~Timer() override {
    if (timer_) CFRunLoopTimerInvalidate(timer_.get());
    if (source_) CFRunLoopSourceInvalidate(source_.get());
  }

  explicit operator bool() const { return static_cast<bool>(timer_); }

 private:
  static void signal(CFRunLoopTimerRef, void* source) {
    CFRunLoopSourceSignal(static_cast<CFRunLoopSourceRef>(source));
  }

  static void perform(void* self) {
    auto* const timer = static_cast<Timer*>(self);
    const std::function<void()> handler = timer->handler_;
    CFRunLoopSourceInvalidate(timer->source_.get());
    handler();
  }

  std::function<void()> handler_;
  CFOwned<CFRunLoopSourceRef> source_;
  CFOwned<CFRunLoopTimerRef> timer_;
};

}  // namespace

std::unique_ptr<LoopSource> watchDescriptor(int descriptor, std::function<void()> handler) {
  return std::make_unique<DescriptorWatch>(descriptor, std::move(handler));
}

std::unique_ptr<LoopSource> callAfter(std::chrono::milliseconds time, std::function<void()> handler) {
  auto timer = std::make_unique<Timer>(time, std::move(handler));
  if (!*timer) return nullptr;
  return timer;
}

}  // namespace vorlix
