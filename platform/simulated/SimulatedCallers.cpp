// SPDX-License-Identifier: Apache-2.0
//
// Signatures of other processes on the simulated machine, and its system log.
#include <Vorlix/platform/CodeSigning.h>
#include <Vorlix/platform/SystemLog.h>

#include <cstdio>
#include <utility>

#include "SimulatedState.h"

namespace vorlix {
namespace {

class SimulatedCodeSigning final : public CodeSigning {
 public:
  explicit SimulatedCodeSigning(std::shared_ptr<SimulatedState> state) : state_(std::move(state)) {}

  CodeCheck check(int32_t process, const std::string& requirement) override {
    state_->journal.push_back("check code " + std::to_string(process) + " " + requirement);
    const auto found = state_->codeChecks.find(process);
    return found == state_->codeChecks.end() ? CodeCheck::guestFailed : found->second;
  }

 private:
  std::shared_ptr<SimulatedState> state_;
};

class SimulatedSystemLog final : public SystemLog {
 public:
  explicit SimulatedSystemLog(std::shared_ptr<SimulatedState> state) : state_(std::move(state)) {}

  void warn(const std::string& text) override {
    const int length = std::snprintf(nullptr, 0, kSystemLogFormat, text.c_str());
    std::string message(static_cast<size_t>(length) + 1, '\0');
    std::snprintf(message.data(), message.size(), kSystemLogFormat, text.c_str());
    message.pop_back();
    state_->journal.push_back("system log " + message);
  }

 private:
  std::shared_ptr<SimulatedState> state_;
};

}  // namespace

std::shared_ptr<CodeSigning> makeSimulatedCodeSigning(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedCodeSigning>(std::move(state));
}

std::shared_ptr<SystemLog> makeSimulatedSystemLog(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedSystemLog>(std::move(state));
}

}  // namespace vorlix
