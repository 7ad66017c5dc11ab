// SPDX-License-Identifier: Apache-2.0
//
// Run loops of the simulated machine. They take no time.
#include <algorithm>

#include "SimulatedState.h"

namespace vorlix {
namespace {

class SimulatedRunLoop final : public RunLoop {
 public:
  // The state owns the loop.
  explicit SimulatedRunLoop(SimulatedState& state) : state_(state) {}

  RunLoopResult run(const std::string& mode, std::chrono::milliseconds limit) override {
    state_.journal.push_back("run " + mode + " " + std::to_string(limit.count()));
    const bool readsHere = mode == kDefaultRunLoopMode && state_.hasPendingRead(*this);
    const bool hasSources =
        readsHere || std::any_of(state_.schedule.begin(), state_.schedule.end(), [&](const ScheduledSession& entry) {
          return entry.loop == this && entry.mode == mode;
        });
    if (!hasSources) return RunLoopResult::noSources;

    const auto ready = std::find_if(state_.requests.begin(), state_.requests.end(), [&](const MountRequest& request) {
      return request.runsLeft == 0 && isScheduledHere(request.session, mode);
    });
    if (ready == state_.requests.end()) {
      if (readsHere && state_.completeRead(*this)) return RunLoopResult::handledSource;
      for (MountRequest& request : state_.requests) {
        if (isScheduledHere(request.session, mode)) --request.runsLeft;
      }
      return RunLoopResult::timedOut;
    }
    const MountRequest request = std::move(*ready);
    state_.requests.erase(ready);  // the completion may make new ones
    const std::optional<Dissenter> dissenter = state_.carryOut(request);
    if (request.completion) request.completion(dissenter);
    return RunLoopResult::handledSource;
  }

 private:
  bool isScheduledHere(SessionID session, const std::string& mode) const {
    const ScheduledSession wanted{session, this, mode};
    return std::find(state_.schedule.begin(), state_.schedule.end(), wanted) != state_.schedule.end();
  }

  SimulatedState& state_;
};

class SimulatedRunLoops final : public RunLoops {
 public:
  explicit SimulatedRunLoops(std::shared_ptr<SimulatedState> state) : state_(std::move(state)) {}

  std::shared_ptr<RunLoop> current() override {
    std::unique_ptr<RunLoop>& loop = state_->loops[std::this_thread::get_id()];
    if (!loop) loop = std::make_unique<SimulatedRunLoop>(*state_);
    return {state_, loop.get()};
  }

 private:
  std::shared_ptr<SimulatedState> state_;
};

}  // namespace

std::shared_ptr<RunLoops> makeSimulatedRunLoops(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedRunLoops>(std::move(state));
}

}  // namespace vorlix
