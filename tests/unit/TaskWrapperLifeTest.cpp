// SPDX-License-Identifier: Apache-2.0
//
// Stopping, restarting and failing to start a program in the background, and its exit status.
#include <gmock/gmock.h>

#include <system_error>

#include "tests/support/TaskWrapperFixture.h"

namespace vorlix::test {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

// ----------------------------------------------------------------------------------------------------------- stopping

TEST_F(TaskWrapperTest, StoppingEndsTheReadsAndTheProcess) {
  Recorded run(childCommand(CHILD_STAY, {"ready", "60000"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(runUntil([&] { return run.count("output") == 1; }));
  run.wrapper->stopProcess();
  EXPECT_THAT(run.events, ElementsAre("start", "output", "end"));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  EXPECT_EQ(statusAtTheEnd(run), SIGTERM);
  EXPECT_EQ(run.count("end"), 1);
}

TEST_F(TaskWrapperTest, PendingOutputIsDroppedWhenARunIsStopped) {
  Recorded run(childCommand(CHILD_STAY, {"waiting", "60000"}));
  run.wrapper->startProcess();
  std::this_thread::sleep_for(milliseconds(200));
  run.wrapper->stopProcess();
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  EXPECT_THAT(run.events, ElementsAre("start", "end"));
}

TEST_F(TaskWrapperTest, StoppingFromTheOutputCallbackEndsOnce) {
  Recorded run(childCommand(CHILD_FLOOD, {"10000000"}));
  run.onOutput = [&] { run.wrapper->stopProcess(); };
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources) << "no further read must have started";
  EXPECT_EQ(run.count("output"), 1);
  EXPECT_EQ(run.count("end"), 1);
}

TEST_F(TaskWrapperTest, StoppingFromTheErrorCallbackEndsOnce) {
  Recorded run({"/bin/sh", "-c", "echo wrong >&2; sleep 60 & wait"});
  run.onError = [&] { run.wrapper->stopProcess(); };
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  EXPECT_THAT(run.events, ElementsAre("start", "error", "end"));
}

TEST_F(TaskWrapperTest, StoppingSendsSIGTERMAndDoesNotWait) {
  Recorded run(childCommand(CHILD_STUBBORN, {"ready", "400", "7"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(runUntil([&] { return run.count("output") == 1; }));
  run.wrapper->stopProcess();
  EXPECT_EQ(run.count("end"), 1);
  EXPECT_EQ(statusAtTheEnd(run), 7);
}

TEST_F(TaskWrapperTest, EveryStopCallsTheEndCallback) {
  Recorded run(childCommand(CHILD_PRINT, {"x"}));
  run.wrapper->stopProcess();  // before a process exists
  EXPECT_THAT(run.events, ElementsAre("end"));
  run.wrapper->startProcess();
  ASSERT_TRUE(runUntil([&] { return run.count("end") == 2; }));
  run.wrapper->stopProcess();  // after it has ended
  EXPECT_THAT(run.events, ElementsAre("end", "start", "output", "end", "end"));
  EXPECT_EQ(statusAtTheEnd(run), 0);
}

TEST_F(TaskWrapperTest, DestroyingTheWrapperLeavesTheProcessRunning) {
  const std::string file = inFolder("written");
  Recorded run({"/bin/sh", "-c", "sleep 0.2; echo done > " + file});
  run.wrapper->startProcess();
  run.wrapper.reset();
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  EXPECT_TRUE(comesTrue([&] { return contentOf(file) == "done\n"; })) << "the process must not be stopped";
  EXPECT_THAT(run.events, ElementsAre("start"));
  ASSERT_TRUE(comesTrue([] { return nothingIsLeftToCollect() && !hasChildren(); }));
}

// ------------------------------------------------------------------------------------------------------ several starts

TEST_F(TaskWrapperTest, AWrapperCanBeStartedAgainAfterItsEnd) {
  Recorded run(childCommand(CHILD_PRINT, {"x"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  run.wrapper->startProcess();
  ASSERT_TRUE(runUntil([&] { return run.count("end") == 2; }));
  EXPECT_THAT(run.events, ElementsAre("start", "output", "end", "start", "output", "end"));
}

TEST_F(TaskWrapperTest, AnEarlierRunsOutputStillArrivesAndItsEndStopsTheNewRun) {
  const auto command = listOf(childCommand(CHILD_STAY, {"first", "500"}));
  Recorded run(command);
  run.wrapper->startProcess();
  *command = childCommand(CHILD_STAY, {"second", "60000"});
  run.wrapper->startProcess();
  ASSERT_TRUE(runUntil([&] { return run.count("output") == 2; }));
  EXPECT_THAT(run.output, testing::UnorderedElementsAre("first", "second"));
  EXPECT_EQ(run.count("end"), 0);
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(statusAtTheEnd(run), SIGTERM) << "status of the new process";
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources) << "neither run's outputs may be read any more";
  EXPECT_EQ(run.count("start"), 2);
  EXPECT_EQ(run.count("end"), 1);
  ASSERT_TRUE(comesTrue([] { return nothingIsLeftToCollect() && !hasChildren(); }));
}

TEST_F(TaskWrapperTest, TheArgumentListIsSharedAndReadAtTheStart) {
  const auto command = listOf(childCommand(CHILD_PRINT, {"old"}));
  Recorded run(command);
  EXPECT_EQ(command.use_count(), 2);
  command->at(2) = "new";
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(joined(run.output), "new");
}

// ------------------------------------------------------------------------------------------------------------- failure

TEST_F(TaskWrapperTest, AFailedLaunchThrowsAfterTheStartCallbackAndTheStartOfTheReads) {
  Recorded run({"/nonexistent/program"});
  try {
    run.wrapper->startProcess();
    FAIL() << "the program was launched";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
  }
  EXPECT_THAT(run.events, ElementsAre("start"));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::timedOut) << "the loop must have sources";
  EXPECT_EQ(run.wrapper->terminationStatus(), 0);
  EXPECT_FALSE(hasChildren());
  run.wrapper->stopProcess();
  EXPECT_THAT(run.events, ElementsAre("start", "end"));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
}

TEST_F(TaskWrapperTest, AProgramThatIsNotExecutableThrows) {
  std::ofstream(inFolder("data")) << "no program";
  Recorded run({inFolder("data")});
  EXPECT_THROW(run.wrapper->startProcess(), std::system_error);
  run.wrapper->stopProcess();
}

TEST_F(TaskWrapperTest, AStartAfterAFailedOneRunsToTheEnd) {
  const auto command = listOf({"/nonexistent/program"});
  Recorded run(command);
  EXPECT_THROW(run.wrapper->startProcess(), std::system_error);
  *command = childCommand(CHILD_PRINT, {"x"});
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_THAT(run.events, ElementsAre("start", "start", "output", "end"));
}

TEST_F(TaskWrapperTest, AnEmptyListThrowsAfterTheStartCallback) {
  Recorded run(Texts{});
  EXPECT_THROW(run.wrapper->startProcess(), std::out_of_range);
  EXPECT_THAT(run.events, ElementsAre("start"));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  Recorded listless(std::shared_ptr<const std::vector<std::string>>{});
  EXPECT_THROW(listless.wrapper->startProcess(), std::out_of_range);
  EXPECT_THAT(listless.events, ElementsAre("start"));
}

TEST_F(TaskWrapperTest, AMissingCallbackThrows) {
  const auto wrapper = QDTaskWrapperWithBlocks::initWithStartBlock(nullptr, nullptr, nullptr, nullptr,
                                                                   listOf(childCommand(CHILD_PRINT, {"x"})));
  EXPECT_THROW(wrapper->startProcess(), std::bad_function_call);
  EXPECT_THROW(wrapper->stopProcess(), std::bad_function_call);
  EXPECT_FALSE(hasChildren());
}

// ----------------------------------------------------------------------------------------------------- exit status

TEST_F(TaskWrapperTest, TheExitStatusIsTheProgramsOwn) {
  Recorded run(childCommand(CHILD_PRINT, {"", "", "3"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(statusAtTheEnd(run), 3);
  EXPECT_FALSE(hasChildren());
  pauses.clear();
  EXPECT_EQ(run.wrapper->terminationStatus(), 3) << "a second call must return the same status";
  EXPECT_THAT(pauses, IsEmpty()) << "there must be no wait for an ended process";
}

TEST_F(TaskWrapperTest, AProgramKilledByASignalHasTheSignalsNumber) {
  Recorded run(childCommand(CHILD_SIGNAL, {std::to_string(SIGKILL)}));
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(statusAtTheEnd(run), SIGKILL);
}

TEST_F(TaskWrapperTest, ARunningProcessHasNoStatusAfterFiveSeconds) {
  Recorded run(childCommand(CHILD_STAY, {"", "60000"}));
  run.wrapper->startProcess();
  EXPECT_EQ(run.wrapper->terminationStatus(), -999);
  EXPECT_THAT(pauses, ElementsAre(milliseconds(5000)));
  run.wrapper->stopProcess();
  EXPECT_EQ(statusAtTheEnd(run), SIGTERM);
}

TEST_F(TaskWrapperTest, AProcessThatEndsDuringThePauseHasAStatus) {
  Recorded run({"/bin/sh", "-c", "while [ ! -e " + inFolder("go") + " ]; do sleep 0.02; done; exit 5"});
  run.wrapper->startProcess();
  inThePause = [this] {
    std::ofstream(inFolder("go")).flush();
    comesTrue(hasZombie);
  };
  EXPECT_EQ(run.wrapper->terminationStatus(), 5);
  EXPECT_THAT(pauses, ElementsAre(milliseconds(5000)));
  ASSERT_TRUE(run.runToEnd());
}

TEST_F(TaskWrapperTest, TheStatusBeforeAnyStartIsZero) {
  const Recorded run(childCommand(CHILD_PRINT));
  EXPECT_EQ(run.wrapper->terminationStatus(), 0);
  EXPECT_THAT(pauses, IsEmpty());
}

}  // namespace
}  // namespace vorlix::test
