// SPDX-License-Identifier: Apache-2.0
//
// Support for tests that run programs: the test child, the host's own ports, a private log, and checks that nothing is
// left behind.
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

/// Longer than any operation here takes on a busy machine. A test that reaches this limit has failed.
inline constexpr std::chrono::seconds kPatience{60};

/// Returns the test child's arguments.
inline Texts behaviour(int number, Texts arguments = {}) {
  arguments.insert(arguments.begin(), std::to_string(number));
  return arguments;
}

/// Returns the same arguments with the child's path before them.
inline Texts childCommand(int number, Texts arguments = {}) {
  arguments = behaviour(number, std::move(arguments));
  arguments.insert(arguments.begin(), kChild);
  return arguments;
}

inline std::string textOf(const Data& chunk) {
  return {chunk.begin(), chunk.end()};
}

/// Reads an output until it ends.
inline std::string everythingFrom(ChildOutput& output) {
  std::string all;
  for (Data chunk = output.read(); !chunk.empty(); chunk = output.read()) all += textOf(chunk);
  return all;
}

/// Returns whether this process has a child, running or ended. Does not collect any.
inline bool hasChildren() {
  siginfo_t info = {};
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

/// Returns whether an ended child waits to be collected.
inline bool hasZombie() {
  siginfo_t info = {};
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

/// Waits until another process makes a condition true.
inline bool comesTrue(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

/// Returns whether no ended child is left. Destroying a handle collects those that ended after their own handles were
/// destroyed.
inline bool nothingIsLeftToCollect() {
  platform().childProcess->create(ChildOutputs::shared, ChildInput::inherited);
  return !hasZombie();
}

/// Returns the numbers of the open descriptors.
inline std::vector<int> numbersOfOpenDescriptors() {
  constexpr int kHighest = 255;
  std::vector<int> open;
  for (int i = 0; i <= kHighest; ++i) {
    if (fcntl(i, F_GETFD) >= 0) open.push_back(i);
  }
  return open;
}

/// Runs the calling thread's loop in the default mode until a condition holds. @return whether it does.
inline bool runUntil(const std::function<bool()>& condition) {
  const auto loop = platform().runLoops->current();
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    if (loop->run(kDefaultRunLoopMode, std::chrono::milliseconds(50)) == RunLoopResult::noSources) return condition();
  }
  return true;
}

/// Runs the loop for a time. @return how many sources it handled.
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

/// Runs the loop's default mode once without waiting.
inline RunLoopResult lookAtLoop() {
  return platform().runLoops->current()->run(kDefaultRunLoopMode, std::chrono::milliseconds(0));
}

/// Uses this system's own ports. At the end of a test, its children must be collected and its pipes closed.
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
    // A child that was just asked to end may take a moment to do so.
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
