// SPDX-License-Identifier: Apache-2.0
#include "RunLoop.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace vorlix {
namespace {

using Clock = std::chrono::steady_clock;

// The longest wait, so that adding it to a point in time cannot overflow.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::hours(24 * 365);

// Rounded up, so that the last wait does not become a busy loop.
int millisecondsUntil(Clock::time_point deadline) {
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(rest, 0, std::numeric_limits<int>::max()));
}

}  // namespace

void LinuxRunLoop::add(const std::string& mode, const std::shared_ptr<RunLoopSource>& source) {
  Sources& sources = modes_[mode];
  if (std::find(sources.begin(), sources.end(), source) == sources.end()) sources.push_back(source);
}

void LinuxRunLoop::remove(const std::string& mode, const std::shared_ptr<RunLoopSource>& source) {
  const auto found = modes_.find(mode);
  if (found == modes_.end()) return;
  std::erase(found->second, source);
  if (found->second.empty()) modes_.erase(found);
}

RunLoopResult LinuxRunLoop::run(const std::string& mode, std::chrono::milliseconds limit) {
  const auto found = modes_.find(mode);
  if (found == modes_.end()) return RunLoopResult::noSources;
  const std::shared_ptr<RunLoopSource> source = waitForSource(found->second, limit);
  if (!source) return RunLoopResult::timedOut;
  // Moves the source to the end, so that a source that is always ready does not block the others.
  const auto position = std::find(found->second.begin(), found->second.end(), source);
  std::rotate(position, position + 1, found->second.end());
  source->handle();
  return RunLoopResult::handledSource;
}

std::shared_ptr<RunLoopSource> LinuxRunLoop::waitForSource(const Sources& sources,
                                                           std::chrono::milliseconds limit) const {
  const bool anyPending = std::any_of(sources.begin(), sources.end(), [](auto& source) { return source->isPending(); });
  const Clock::time_point deadline = Clock::now() + std::min(limit, kLongestWait);
  std::vector<pollfd> polled;
  for (const auto& source : sources) polled.push_back({source->descriptor(), POLLIN, 0});  // -1 is ignored
  for (;;) {
    const int ready = poll(polled.data(), polled.size(), anyPending ? 0 : millisecondsUntil(deadline));
    if (ready < 0 && errno != EINTR && errno != EAGAIN) return nullptr;
    for (size_t i = 0; i < sources.size(); ++i) {
      if (sources[i]->isPending() || (ready > 0 && polled[i].revents != 0)) return sources[i];
    }
    if (Clock::now() >= deadline) return nullptr;
  }
}

std::shared_ptr<RunLoop> LinuxRunLoops::current() {
  thread_local const auto loop = std::make_shared<LinuxRunLoop>();
  return loop;
}

}  // namespace vorlix
