// SPDX-License-Identifier: Apache-2.0
//
// What native children inherit, what they leave behind, and what stays unchanged in the host.
#include <Vorlix/platform/ChildProcess.h>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <system_error>

#include "tests/support/ProcessFixture.h"

namespace vorlix::contract {
namespace {

using std::chrono::milliseconds;
using test::behaviour;
using test::comesTrue;
using test::everythingFrom;
using test::kChild;
using test::runUntil;
using test::Texts;
using testing::IsEmpty;

class NativeChildProcess : public test::NativeProcessTest {
 protected:
  static std::shared_ptr<Child> launch(const Texts& arguments, ChildInput input = ChildInput::pipe) {
    auto child = platform().childProcess->create(ChildOutputs::separate, input);
    child->launch(kChild, arguments);
    return child;
  }

  /// Returns the state that a child reports about itself, in three lines.
  static std::string stateOfAChild(ChildInput input = ChildInput::pipe) {
    return everythingFrom(*launch(behaviour(CHILD_STATE), input)->standardOutput());
  }
};

TEST_F(NativeChildProcess, TheChildHasThreeStreamsAndNoBlockedOrIgnoredSignal) {
  EXPECT_EQ(stateOfAChild(), "descriptors 0 1 2\nblocked\nignored\n");
  EXPECT_EQ(stateOfAChild(ChildInput::inherited), "descriptors 0 1 2\nblocked\nignored\n");
}

TEST_F(NativeChildProcess, NoDescriptorOfTheHostReachesTheChild) {
  const int careless = open("/dev/null", O_RDONLY);  // a plain exec would pass it on
  const int high = fcntl(careless, F_DUPFD, 200);
  ASSERT_GE(high, 200);
  const auto another = launch(behaviour(CHILD_STAY, {"", "60000"}));
  EXPECT_EQ(stateOfAChild(), "descriptors 0 1 2\nblocked\nignored\n");
  EXPECT_GE(fcntl(careless, F_GETFD), 0) << "the host must keep its own descriptor";
  another->terminate();
  close(high);
  close(careless);
}

TEST_F(NativeChildProcess, TheHostsSignalMaskAndHandlersAreUnchanged) {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR1);
  sigaddset(&mask, SIGTERM);
  sigset_t maskBefore;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &mask, &maskBefore), 0);
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction pipeBefore = {};
  sigaction(SIGPIPE, &ignore, &pipeBefore);
  struct sigaction handler = {};
  handler.sa_handler = [](int) {};
  struct sigaction childBefore = {};
  sigaction(SIGCHLD, &handler, &childBefore);

  EXPECT_EQ(stateOfAChild(), "descriptors 0 1 2\nblocked\nignored\n");

  sigset_t maskAfter;
  pthread_sigmask(SIG_SETMASK, &maskBefore, &maskAfter);
  EXPECT_EQ(sigismember(&maskAfter, SIGUSR1), 1);
  EXPECT_EQ(sigismember(&maskAfter, SIGTERM), 1);
  EXPECT_EQ(sigismember(&maskAfter, SIGCHLD), 0);
  struct sigaction after = {};
  sigaction(SIGPIPE, &pipeBefore, &after);
  EXPECT_EQ(after.sa_handler, SIG_IGN);
  sigaction(SIGCHLD, &childBefore, &after);
  EXPECT_EQ(after.sa_handler, handler.sa_handler);
}

TEST_F(NativeChildProcess, AHostWithoutStandardStreamsCanRunPrograms) {
  // Use another process, because the test needs its own streams.
  const pid_t host = fork();
  ASSERT_GE(host, 0);
  if (host == 0) {
    for (int i = 0; i <= 2; ++i) close(i);
    const bool right = stateOfAChild() == "descriptors 0 1 2\nblocked\nignored\n";
    const auto child = launch(behaviour(CHILD_PRINT, {"out", "err"}));
    const bool apart =
        everythingFrom(*child->standardOutput()) == "out" && everythingFrom(*child->standardError()) == "err";
    _exit(right && apart ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(host, &status, 0), host);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(NativeChildProcess, TheChildHasTheHostsEnvironmentAndFolder) {
  ASSERT_EQ(setenv("VORLIX_TEST_VARIABLE", "a value", 1), 0);
  auto child = platform().childProcess->create(ChildOutputs::shared, ChildInput::pipe);
  child->launch("/bin/sh", {"-c", "echo $VORLIX_TEST_VARIABLE; pwd"});
  EXPECT_EQ(everythingFrom(*child->standardOutput()), "a value\n" + std::filesystem::current_path().string() + "\n");
  unsetenv("VORLIX_TEST_VARIABLE");
}

TEST_F(NativeChildProcess, AZeroByteInAnArgumentIsRefused) {
  const auto child = platform().childProcess->create(ChildOutputs::shared, ChildInput::pipe);
  EXPECT_THROW(child->launch(kChild, behaviour(CHILD_PRINT, {std::string("a\0b", 3)})), std::system_error);
  EXPECT_THROW(child->launch(std::string(kChild) + std::string("\0", 1), {}), std::system_error);
  EXPECT_FALSE(test::hasChildren());
}

TEST_F(NativeChildProcess, TheInputPipeStaysOpenUntilTheHandleIsDestroyed) {
  auto child = launch(behaviour(CHILD_INPUT, {"60000"}));
  const auto output = child->standardOutput();
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_TRUE(child->isRunning());
  child.reset();
  EXPECT_EQ(everythingFrom(*output), "ended");
}

TEST_F(NativeChildProcess, ReadingTheStatusCollectsTheProcess) {
  const auto child = launch(behaviour(CHILD_PRINT, {"", "", "7"}));
  ASSERT_TRUE(comesTrue([&] { return !child->isRunning(); }));
  EXPECT_FALSE(test::hasChildren());
}

TEST_F(NativeChildProcess, DestroyingAHandleAfterTheEndCollectsTheProcess) {
  auto child = launch(behaviour(CHILD_PRINT, {}));
  ASSERT_TRUE(comesTrue(test::hasZombie));
  child.reset();
  EXPECT_FALSE(test::hasChildren());
}

TEST_F(NativeChildProcess, AChildThatOutlivesItsHandleIsCollectedAtTheNextLaunch) {
  launch(behaviour(CHILD_STAY, {"", "100"})).reset();
  EXPECT_TRUE(test::hasChildren()) << "the child must not be ended";
  ASSERT_TRUE(comesTrue(test::hasZombie));
  const auto next = launch(behaviour(CHILD_STAY, {"", "60000"}));
  EXPECT_FALSE(test::hasZombie());
  next->terminate();
}

TEST_F(NativeChildProcess, DestroyingAHandleDoesNotWaitForARunningChild) {
  auto child = launch(behaviour(CHILD_STAY, {"", "3000"}));
  child.reset();
  EXPECT_TRUE(test::hasChildren() && !test::hasZombie()) << "the child must still run";
  ASSERT_TRUE(comesTrue([] { return test::nothingIsLeftToCollect() && !test::hasChildren(); }));
}

TEST_F(NativeChildProcess, AStatusThatTheHostCollectedIsLost) {
  const auto child = launch(behaviour(CHILD_PRINT, {"", "", "7"}));
  int status = 0;
  ASSERT_GT(waitpid(-1, &status, 0), 0);
  child->terminate();  // sends no signal
  EXPECT_FALSE(child->isRunning());
  EXPECT_EQ(child->terminationStatus(), -1);
}

TEST_F(NativeChildProcess, AChildThatIsAboutToExitIsNotKilledByASignal) {
  const auto child = launch(behaviour(CHILD_SLOW_EXIT, {"30", "7"}));
  EXPECT_THAT(child->standardOutput()->read(), IsEmpty());
  child->terminate();
  ASSERT_TRUE(comesTrue([&] { return !child->isRunning(); }));
  EXPECT_EQ(child->terminationStatus(), 7);
}

TEST_F(NativeChildProcess, AChildThatKeepsRunningWithoutItsOutputIsStillTerminated) {
  const auto child = launch(behaviour(CHILD_SLOW_EXIT, {"60000", "7"}));
  EXPECT_THAT(child->standardOutput()->read(), IsEmpty());
  child->terminate();
  ASSERT_TRUE(comesTrue([&] { return !child->isRunning(); }));
  EXPECT_EQ(child->terminationStatus(), SIGTERM);
}

TEST_F(NativeChildProcess, OnlyTheChildItselfIsTerminated) {
  const auto child = platform().childProcess->create(ChildOutputs::shared, ChildInput::pipe);
  child->launch("/bin/sh", {"-c", "(sleep 0.5; echo survived) & echo ready; wait"});
  EXPECT_EQ(test::textOf(child->standardOutput()->read()), "ready\n");
  child->terminate();
  EXPECT_EQ(everythingFrom(*child->standardOutput()), "survived\n");
}

TEST_F(NativeChildProcess, ManyHandlesAtOnceKeepTheirOwnPipes) {
  std::vector<std::shared_ptr<Child>> children;
  for (int i = 0; i < 20; ++i) children.push_back(launch(behaviour(CHILD_PRINT, {std::to_string(i)})));
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(everythingFrom(*children[static_cast<size_t>(i)]->standardOutput()), std::to_string(i));
  }
}

TEST_F(NativeChildProcess, ALackOfDescriptorsThrows) {
  // With enough descriptors it works. This call also lets a sanitizer look at the types for the first time, for which
  // it needs two descriptors.
  ASSERT_NO_THROW(platform().childProcess->create(ChildOutputs::separate, ChildInput::pipe));
  ASSERT_THROW(throw std::system_error(EMFILE, std::generic_category()), std::system_error);
  std::vector<int> taken;
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit few = before;
  few.rlim_cur = 64;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  for (int i = dup(2); i >= 0; i = dup(2)) taken.push_back(i);
  ASSERT_GE(taken.size(), 6u);
  const size_t all = test::numbersOfOpenDescriptors().size();
  // The pipes need six descriptors, and one more temporarily. With fewer, none of them may stay open.
  for (size_t spare = 0; spare < 6; ++spare) {
    EXPECT_THROW(platform().childProcess->create(ChildOutputs::separate, ChildInput::pipe), std::system_error) << spare;
    EXPECT_EQ(test::numbersOfOpenDescriptors().size(), all - spare);
    close(taken.back());
    taken.pop_back();
  }
  for (const int i : taken) close(i);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST_F(NativeChildProcess, AnEndedOutputCompletesAgainOnlyAfterTheInterval) {
  const auto child = launch(behaviour(CHILD_CLOSE_ERROR, {"x", "60000"}));
  const auto error = child->standardError();
  std::vector<std::chrono::steady_clock::time_point> times;
  std::function<void()> begin = [&] {
    error->readInBackground([&](const Data& chunk) {
      EXPECT_THAT(chunk, IsEmpty());
      times.push_back(std::chrono::steady_clock::now());
      if (times.size() < 4) begin();
    });
  };
  begin();
  ASSERT_TRUE(runUntil([&] { return times.size() == 4; }));
  for (size_t i = 1; i < times.size(); ++i) EXPECT_GE(times[i] - times[i - 1], kEndedReadInterval);
  child->terminate();
}

TEST_F(NativeChildProcess, ReadsAfterTheEndDoNotFailIfNoTimerIsAvailable) {
  const auto child = launch(behaviour(CHILD_PRINT, {}));
  const auto output = child->standardOutput();
  EXPECT_THAT(output->read(), IsEmpty());
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit none = before;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_NO_THROW(output->readInBackground([](const Data& chunk) { EXPECT_THAT(chunk, IsEmpty()); }));
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

}  // namespace
}  // namespace vorlix::contract
