// SPDX-License-Identifier: Apache-2.0
#include "platform/posix/DescriptorSource.h"

#include <sys/timerfd.h>

#include <utility>

#include <Vorlix/platform/Descriptor.h>
#include "RunLoop.h"

namespace vorlix {
namespace {

class LinuxLoopSource final : public LoopSource {
 public:
  LinuxLoopSource(int descriptor, std::function<void()> handler, Descriptor owned = Descriptor())
      : owned_(std::move(owned)), loop_(std::static_pointer_cast<LinuxRunLoop>(LinuxRunLoops().current())) {
    source_ = std::make_shared<ReadableDescriptor>(descriptor, [this, handler = std::move(handler)] {
      leave();
      handler();  // may destroy this object; the loop keeps the handler until it has returned
    });
    loop_->add(kDefaultRunLoopMode, source_);
  }
  ~LinuxLoopSource() override { leave(); }

 private:
  void leave() { loop_->remove(kDefaultRunLoopMode, source_); }

  Descriptor owned_;
  std::shared_ptr<LinuxRunLoop> loop_;
  std::shared_ptr<RunLoopSource> source_;
};

}  // namespace

std::unique_ptr<LoopSource> watchDescriptor(int descriptor, std::function<void()> handler) {
  return std::make_unique<LinuxLoopSource>(descriptor, std::move(handler));
}

std::unique_ptr<LoopSource> callAfter(std::chrono::milliseconds time, std::function<void()> handler) {
  Descriptor timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
  itimerspec due = {};
  due.it_value.tv_sec = seconds.count();
  due.it_value.tv_nsec = std::chrono::nanoseconds(time - seconds).count();
  if (!timer || timerfd_settime(timer.get(), 0, &due, nullptr) != 0) return nullptr;
  const int descriptor = timer.get();
  return std::make_unique<LinuxLoopSource>(descriptor, std::move(handler), std::move(timer));
}

}  // namespace vorlix
