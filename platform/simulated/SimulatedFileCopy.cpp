// SPDX-License-Identifier: Apache-2.0
//
// File copies of the simulated machine: real ones, but for those that are to fail.
#include <Vorlix/platform/FileCopy.h>

#include "SimulatedState.h"

namespace vorlix {
namespace {

class SimulatedFileCopy final : public FileCopy {
 public:
  explicit SimulatedFileCopy(std::shared_ptr<SimulatedState> state)
      : state_(std::move(state)), native_(nativePlatform().fileCopy) {}

  std::optional<std::string> copyItem(const std::string& source, const std::string& destination) override {
    state_->journal.push_back("copy " + source + " " + destination);
    const auto failure = state_->copyFailures.find(source);
    if (failure != state_->copyFailures.end()) return failure->second;
    return native_->copyItem(source, destination);
  }

 private:
  std::shared_ptr<SimulatedState> state_;
  std::shared_ptr<FileCopy> native_;
};

}  // namespace

std::shared_ptr<FileCopy> makeSimulatedFileCopy(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedFileCopy>(std::move(state));
}

}  // namespace vorlix
