// SPDX-License-Identifier: Apache-2.0
//
// The simulated machine's mounted volumes, user, command interpreter, pauses and locale.
#include <Vorlix/platform/MountedVolumes.h>
#include <Vorlix/platform/Pauses.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/Shell.h>
#include <Vorlix/platform/UserIdentity.h>
#include <Vorlix/platform/UserLocale.h>

#include <utility>

#include "SimulatedState.h"

namespace vorlix {
namespace {

class SimulatedMountedVolumes final : public MountedVolumes {
 public:
  explicit SimulatedMountedVolumes(std::shared_ptr<SimulatedState> state) : state_(std::move(state)) {}

  std::vector<MountedVolume> volumes() override {
    state_->journal.emplace_back("list mounted volumes");
    return state_->mountedVolumes;
  }

 private:
  std::shared_ptr<SimulatedState> state_;
};

class SimulatedUserIdentity final : public UserIdentity {
 public:
  explicit SimulatedUserIdentity(std::shared_ptr<SimulatedState> state) : state_(std::move(state)) {}

  uint32_t realUserID() override { return state_->realUserID; }

 private:
  std::shared_ptr<SimulatedState> state_;
};

class SimulatedShell final : public Shell {
 public:
  explicit SimulatedShell(std::shared_ptr<SimulatedState> state) : state_(std::move(state)) {}

  int run(const std::string& command) override {
    state_->journal.push_back("shell " + command);
    return state_->shellStatus;
  }

 private:
  std::shared_ptr<SimulatedState> state_;
};

class SimulatedPauses final : public Pauses {
 public:
  explicit SimulatedPauses(std::shared_ptr<SimulatedState> state) : state_(std::move(state)) {}

  void pause(std::chrono::milliseconds time) override {
    if (state_->duringPauses) {
      state_->duringPauses(time);
    } else {
      nativePlatform().pauses->pause(time);
    }
  }

 private:
  std::shared_ptr<SimulatedState> state_;
};

class SimulatedUserLocale final : public UserLocale {
 public:
  explicit SimulatedUserLocale(std::shared_ptr<SimulatedState> state) : state_(std::move(state)) {}

  std::string decimalSeparator() override {
    return state_->decimalSeparator ? *state_->decimalSeparator : nativePlatform().userLocale->decimalSeparator();
  }

 private:
  std::shared_ptr<SimulatedState> state_;
};

}  // namespace

std::shared_ptr<MountedVolumes> makeSimulatedMountedVolumes(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedMountedVolumes>(std::move(state));
}

std::shared_ptr<UserIdentity> makeSimulatedUserIdentity(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedUserIdentity>(std::move(state));
}

std::shared_ptr<Shell> makeSimulatedShell(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedShell>(std::move(state));
}

std::shared_ptr<Pauses> makeSimulatedPauses(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedPauses>(std::move(state));
}

std::shared_ptr<UserLocale> makeSimulatedUserLocale(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedUserLocale>(std::move(state));
}

}  // namespace vorlix
