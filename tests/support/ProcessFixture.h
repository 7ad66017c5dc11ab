// SPDX-License-Identifier: Apache-2.0
//
// Tests of running programs: the test child, the host's own ports, a log of one's own, and what is left behind.
#pragma once

#include <Vorlix/LogCapture.h>
#include <Vorlix/platform/ChildProcess.h>
#include <Vorlix/platform/RunLoop.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <Vorlix/platform/simulated/SimulatedSystemPaths.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ChildBehaviour.h"
#include "FileContent.h"

namespace vorlix::test {

using Texts = std::vector<std::string>;

/// Path of the test child.
inline constexpr const char* kChild = VORLIX_TEST_CHILD;

/// Longer than anything here takes on a busy machine; a test that waits so long has failed.
inline constexpr std::chrono::seconds kPatience{60};

/// The test child's arguments.
inline Texts behaviour(int number, Texts arguments = {}) {
  arguments.insert(arguments.begin(), std::to_string(number));
  return arguments;
}

/// The same after its path, as one list.
inline Texts childCommand(int number, Texts arguments = {}) {
  arguments = behaviour(number, std::move(arguments));
  arguments.insert(arguments.begin(), kChild);
  return arguments;
}

inline std::string textOf(const Data& chunk) {
  return {chunk.begin(), chunk.end()};
}

/// Reads an output to its end.
inline std::string everythingFrom(ChildOutput& output) {
  std::string all;
  for (Data chunk = output.read(); !chunk.empty(); chunk = output.read()) all += textOf(chunk);
  return all;
}

/// Whether the system still keeps a child of this process, ended or not. Nothing is collected by looking.
inline bool hasChildren() {
  siginfo_t info = {};
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

/// Whether one of them has ended and waits for being collected.
inline bool hasZombie() {
  siginfo_t info = {};
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

/// Waits for a condition that another process brings about.
inline bool comesTrue(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

/// The same after a handle has gone, which collects those that ended when their own handles had gone already.
inline bool nothingIsLeftToCollect() {
  platform().childProcess->create(ChildOutputs::shared, ChildInput::inherited);
  return !hasZombie();
}

/// The numbers of the descriptors that are open.
inline std::vector<int> numbersOfOpenDescriptors() {
  constexpr int kHighest = 255;
  std::vector<int> open;
  for (int i = 0; i <= kHighest; ++i) {
    if (fcntl(i, F_GETFD) >= 0) open.push_back(i);
  }
  return open;
}

/// Runs the calling thread's loop in the default mode until a condition holds. @return whether it came to that.
inline bool runUntil(const std::function<bool()>& condition) {
  const auto loop = platform().runLoops->current();
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    if (loop->run(kDefaultRunLoopMode, std::chrono::milliseconds(50)) == RunLoopResult::noSources) return condition();
  }
  return true;
}

/// Runs it for a time. @return how many sources it handled.
inline int runFor(std::chrono::milliseconds time) {
  const auto loop = platform().runLoops->current();
  const auto deadline = std::chrono::steady_clock::now() + time;
  int handled = 0;
  for (;;) {
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (rest.count() <= 0) return handled;
    const RunLoopResult result = loop->run(kDefaultRunLoopMode, rest);
    if (result == RunLoopResult::noSources) return handled;
    if (result == RunLoopResult::handledSource) ++handled;
  }
}

/// What the loop's default mode says at once.
inline RunLoopResult lookAtLoop() {
  return platform().runLoops->current()->run(kDefaultRunLoopMode, std::chrono::milliseconds(0));
}

/// This system's own ports, whose children must have been collected and whose pipes closed when the test is over.
class NativeProcessTest : public testing::Test {
 protected:
  NativeProcessTest() : folder_(testing::TempDir() + "vorlixXXXXXX"), scope_(nativePlatform()) {
    if (mkdtemp(folder_.data()) == nullptr) throw std::runtime_error("no temporary folder: " + folder_);
    paths_->setLogFile(inFolder("log"));
    Platform ports = platform();
    ports.systemPaths = paths_;
    setPlatform(std::move(ports));
    descriptors_ = numbersOfOpenDescriptors();
  }
  ~NativeProcessTest() override {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  void TearDown() override {
    EXPECT_EQ(numbersOfOpenDescriptors(), descriptors_) << "a descriptor was left open";
    // A child that was just asked to end may take a moment.
    EXPECT_TRUE(comesTrue([] { return nothingIsLeftToCollect() && !hasChildren(); })) << "a child was left behind";
  }

  std::string inFolder(const std::string& name) const { return folder_ + "/" + name; }
  std::string log() const { return contentOf(inFolder("log")); }

 private:
  std::string folder_;
  ScopedPlatform scope_;
  const std::shared_ptr<SimulatedSystemPaths> paths_ = std::make_shared<SimulatedSystemPaths>();
  std::vector<int> descriptors_;
};

}  // namespace vorlix::test
