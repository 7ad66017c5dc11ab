// SPDX-License-Identifier: Apache-2.0
//
// Running a program in the background, with real children and this system's own run loop.
#include <gmock/gmock.h>

#include <ctime>

#include "tests/support/TaskWrapperFixture.h"

namespace vorlix::test {
namespace {

using std::chrono::milliseconds;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

// ------------------------------------------------------------------------------------------------------------- one run

TEST_F(TaskWrapperTest, DeliversAShortLineInOneCallAndEndsOnce) {
  Recorded run({"/bin/sh", "-c", "echo hello"});
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_THAT(run.events, ElementsAre("start", "output", "end"));
  EXPECT_THAT(run.output, ElementsAre("hello\n"));
  EXPECT_THAT(run.error, IsEmpty());
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  EXPECT_EQ(run.count("end"), 1);
  EXPECT_EQ(statusAtTheEnd(run), 0);
}

TEST_F(TaskWrapperTest, CreatingAWrapperStartsNothing) {
  const Recorded run({"/bin/sh", "-c", "echo hello"});
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  EXPECT_THAT(run.events, IsEmpty());
  EXPECT_FALSE(hasChildren());
}

TEST_F(TaskWrapperTest, TheShellGetsExactlyTwoArguments) {
  Recorded run({"/bin/sh", "-c", "echo $0 $#"});  // the shell's name and its number of arguments
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(joined(run.output), "/bin/sh 0\n");
}

TEST_F(TaskWrapperTest, TheElementsAfterTheFirstAreTheArguments) {
  Recorded run(childCommand(CHILD_ARGUMENTS, {"-c", "echo 'a b' | wc", ""}));
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(joined(run.output), "[-c][echo 'a b' | wc][]");
}

TEST_F(TaskWrapperTest, AListOfOneElementGivesNoArguments) {
  Recorded run({"/bin/pwd"});
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(joined(run.output), std::filesystem::current_path().string() + "\n");
}

TEST_F(TaskWrapperTest, TheStartCallbackRunsBeforeTheProcessExists) {
  Recorded run(childCommand(CHILD_PRINT, {"x"}));
  bool hadChildren = true;
  run.onStart = [&] { hadChildren = hasChildren(); };
  run.wrapper->startProcess();
  EXPECT_THAT(run.events, ElementsAre("start"));
  EXPECT_FALSE(hadChildren);
  EXPECT_TRUE(hasChildren());
  ASSERT_TRUE(run.runToEnd());
}

TEST_F(TaskWrapperTest, NothingIsDeliveredUnlessTheLoopRunsInTheDefaultMode) {
  Recorded run(childCommand(CHILD_PRINT, {"x"}));
  run.wrapper->startProcess();
  std::this_thread::sleep_for(milliseconds(100));
  const auto loop = platform().runLoops->current();
  EXPECT_EQ(loop->run("another mode", milliseconds(100)), RunLoopResult::noSources);
  EXPECT_THAT(run.events, ElementsAre("start"));
  ASSERT_TRUE(run.runToEnd());
  EXPECT_THAT(run.events, ElementsAre("start", "output", "end"));
}

TEST_F(TaskWrapperTest, EverythingArrivesOnTheThreadThatStartedTheRun) {
  std::vector<std::thread::id> threads;
  std::thread::id started;
  std::thread([&] {
    started = std::this_thread::get_id();
    Recorded run(childCommand(CHILD_PRINT, {"x", "y"}));
    run.wrapper->startProcess();
    EXPECT_TRUE(run.runToEnd());
    threads = run.threads;
  }).join();
  EXPECT_GE(threads.size(), 3u);
  EXPECT_THAT(threads, Each(started));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources) << "this thread's loop must not be involved";
}

TEST_F(TaskWrapperTest, PiecesOfAStreamArriveInOrderAndComplete) {
  constexpr size_t kCount = size_t{4} << 20;
  Recorded run(childCommand(CHILD_FLOOD, {std::to_string(kCount)}));
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(joined(run.output), std::string(kCount, 'o'));
  EXPECT_GT(run.output.size(), 1u);
  EXPECT_EQ(run.events.back(), "end");

  Recorded counting({"/bin/sh", "-c", "i=0; while [ $i -lt 20000 ]; do echo $i; i=$((i+1)); done"});
  counting.wrapper->startProcess();
  ASSERT_TRUE(counting.runToEnd());
  std::string expected;
  for (int i = 0; i < 20000; ++i) expected += std::to_string(i) + "\n";
  EXPECT_EQ(joined(counting.output), expected);
}

TEST_F(TaskWrapperTest, EachRunOfTheLoopDeliversAtMostOnePiece) {
  Recorded run(childCommand(CHILD_FLOOD, {"1000000"}));
  run.wrapper->startProcess();
  const auto loop = platform().runLoops->current();
  while (run.count("end") == 0) {
    const size_t before = run.output.size() + run.error.size();
    ASSERT_NE(loop->run(kDefaultRunLoopMode, milliseconds(60000)), RunLoopResult::timedOut);
    ASSERT_LE(run.output.size() + run.error.size(), before + 1);
  }
}

TEST_F(TaskWrapperTest, StandardInputStaysOpenAndEmpty) {
  Recorded run(childCommand(CHILD_INPUT, {"200"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(joined(run.output), "open");
}

// ------------------------------------------------------------------------------------------------------------ the end

TEST_F(TaskWrapperTest, AProgramThatWritesOnlyErrorsEndsWithItsOutput) {
  Recorded run({"/bin/sh", "-c", "echo wrong >&2; sleep 0.2"});
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_THAT(run.events, ElementsAre("start", "error", "end"));
  EXPECT_THAT(run.error, ElementsAre("wrong\n"));
  EXPECT_THAT(run.output, IsEmpty());
}

TEST_F(TaskWrapperTest, PendingErrorsAreDeliveredWhenTheOutputEnds) {
  Recorded run(childCommand(CHILD_PRINT, {"", "wrong"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(comesTrue(hasZombie)) << "the error and both ends of file must be ready";
  ASSERT_TRUE(run.runToEnd());
  EXPECT_THAT(run.events, ElementsAre("start", "error", "end"));
  EXPECT_THAT(run.error, ElementsAre("wrong"));
}

TEST_F(TaskWrapperTest, AFullPipeOfErrorsIsDeliveredWhenTheOutputEnds) {
  constexpr size_t kHeldByAPipe = 64 * 1024;
  const std::string count = std::to_string(kHeldByAPipe);
  Recorded run({"/bin/sh", "-c", "head -c " + count + " /dev/zero | tr '\\0' e >&2"});
  run.wrapper->startProcess();
  ASSERT_TRUE(comesTrue(hasZombie));
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(joined(run.error), std::string(kHeldByAPipe, 'e'));
}

TEST_F(TaskWrapperTest, BothStreamsOfAFloodAreComplete) {
  constexpr size_t kCount = size_t{64} << 20;
  size_t output = 0;
  size_t error = 0;
  bool ended = false;
  const auto adder = [](size_t& sum) {
    return [&sum](const std::optional<std::string>& text) { sum += text.value_or("").size(); };
  };
  const auto wrapper =
      QDTaskWrapperWithBlocks::initWithStartBlock([] {}, [&] { ended = true; }, adder(output), adder(error),
                                                  listOf(childCommand(CHILD_FLOOD, {std::to_string(kCount)})));
  wrapper->startProcess();
  ASSERT_TRUE(runUntil([&] { return ended; }));
  EXPECT_EQ(output, kCount);
  EXPECT_EQ(error, kCount);
}

TEST_F(TaskWrapperTest, StoppingFromTheLastErrorsCallbackEndsOnce) {
  Recorded run(childCommand(CHILD_PRINT, {"", "wrong"}));
  run.onError = [&] { run.wrapper->stopProcess(); };
  run.wrapper->startProcess();
  ASSERT_TRUE(comesTrue(hasZombie));
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  EXPECT_THAT(run.events, ElementsAre("start", "error", "end"));
}

TEST_F(TaskWrapperTest, AProgramThatClosesItsOutputJustBeforeItExitsKeepsItsStatus) {
  Recorded run({"/bin/sh", "-c", "echo x; exec >&- 2>&-; sleep 0.02; exit 3"});
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(run.wrapper->terminationStatus(), 3);
  EXPECT_THAT(pauses, IsEmpty()) << "the process has ended";
}

TEST_F(TaskWrapperTest, TheEndOfStandardErrorDoesNotEndTheRun) {
  Recorded run(childCommand(CHILD_CLOSE_ERROR, {"still there", "400"}));
  run.wrapper->startProcess();
  runFor(milliseconds(100));
  EXPECT_THAT(run.events, ElementsAre("start"));
  ASSERT_TRUE(run.runToEnd());
  EXPECT_THAT(run.events, ElementsAre("start", "output", "end"));
  EXPECT_EQ(joined(run.output), "still there");
}

TEST_F(TaskWrapperTest, AnEndedStandardErrorDoesNotKeepTheLoopBusy) {
  Recorded run(childCommand(CHILD_CLOSE_ERROR, {"x", "60000"}));
  run.wrapper->startProcess();
  const std::clock_t before = std::clock();
  const int handled = runFor(milliseconds(550));
  const double used = static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC;
  EXPECT_GE(handled, 2) << "empty reads must still complete";
  EXPECT_LE(handled, 7) << "at most about ten a second";
  EXPECT_LT(used, 0.25);
  EXPECT_THAT(run.events, ElementsAre("start"));
  run.wrapper->stopProcess();
  EXPECT_EQ(statusAtTheEnd(run), SIGTERM);
}

TEST_F(TaskWrapperTest, TheEndOfOutputStopsAProgramThatKeepsRunning) {
  Recorded run({"/bin/sh", "-c", "echo x; exec /bin/sleep 60 >&- 2>&-"});
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_THAT(run.events, ElementsAre("start", "output", "end"));
  EXPECT_EQ(statusAtTheEnd(run), SIGTERM);
}

TEST_F(TaskWrapperTest, AProcessThatHoldsTheOutputDelaysTheEnd) {
  Recorded run(childCommand(CHILD_GRANDCHILD, {"late", "200"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(joined(run.output), "late");
  EXPECT_THAT(run.events, ElementsAre("start", "output", "end"));
  EXPECT_EQ(statusAtTheEnd(run), 0);
}

TEST_F(TaskWrapperTest, TheEndCallbackMayStartTheNextRun) {
  Recorded run(childCommand(CHILD_PRINT, {"x"}));
  run.onEnd = [&] {
    if (run.count("end") == 1) run.wrapper->startProcess();
  };
  run.wrapper->startProcess();
  ASSERT_TRUE(runUntil([&] { return run.count("end") == 2; }));
  EXPECT_EQ(joined(run.output), "xx");
  EXPECT_EQ(statusAtTheEnd(run), 0);  // the first run's stop did not end it
}

TEST_F(TaskWrapperTest, TheEndCallbackMayReleaseTheWrapper) {
  Recorded run(childCommand(CHILD_PRINT, {"x"}));
  const std::weak_ptr<QDTaskWrapperWithBlocks> watched = run.wrapper;
  bool aliveInside = false;
  run.onEnd = [&] {
    run.wrapper.reset();
    aliveInside = !watched.expired();
  };
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_TRUE(aliveInside);
  EXPECT_TRUE(watched.expired());
}

// --------------------------------------------------------------------------------------------------------------- text

TEST_F(TaskWrapperTest, APieceThatEndsInsideACharacterIsAbsentText) {
  Recorded run(childCommand(CHILD_SPLIT, {"1", "gr\xC3", "\xBCn"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_THAT(run.output, ElementsAre(std::nullopt, std::nullopt));
}

TEST_F(TaskWrapperTest, APieceOfStandardErrorThatEndsInsideACharacterIsAbsentText) {
  Recorded run(childCommand(CHILD_SPLIT, {"2", "\xE2\x82", "\xAC"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(runUntil([&] { return run.error.size() == 2; }));
  EXPECT_THAT(run.error, ElementsAre(std::nullopt, std::nullopt));
  ASSERT_TRUE(run.runToEnd());
}

TEST_F(TaskWrapperTest, WholeCharactersArriveAsText) {
  Recorded run(childCommand(CHILD_SPLIT, {"1", "gr\xC3\xBC", "\xE2\x82\xAC\n"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_THAT(run.output, ElementsAre("gr\xC3\xBC", "\xE2\x82\xAC\n"));
}

TEST_F(TaskWrapperTest, AnAbsentTextDoesNotEndTheRun) {
  Recorded run(childCommand(CHILD_SPLIT, {"1", "\xFF", "text"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_THAT(run.output, ElementsAre(std::nullopt, "text"));
}

// ------------------------------------------------------------------------------------------------- simulated machine

class TaskWrapperOnASimulatedMachine : public testing::Test {
 protected:
  SimulatedMachine machine;
  ScopedPlatform scope{machine.platform()};
};

TEST_F(TaskWrapperOnASimulatedMachine, RunsTheMachinesPrograms) {
  SimulatedRun program;
  program.pieces = {{SimulatedRun::Stream::error, "e"}, {SimulatedRun::Stream::output, "12\n"}};
  program.status = 4;
  machine.addProgram("/bin/sh", program);
  Recorded run({"/bin/sh", "-c", "wc -c"});
  run.wrapper->startProcess();
  while (lookAtLoop() == RunLoopResult::handledSource) continue;
  EXPECT_EQ(joined(run.output), "12\n");
  EXPECT_EQ(joined(run.error), "e");
  EXPECT_EQ(run.count("end"), 1);
  EXPECT_EQ(run.wrapper->terminationStatus(), 4);
  std::vector<std::string> calls = machine.journal();
  std::erase_if(calls, [](const std::string& line) { return line.starts_with("run "); });
  EXPECT_THAT(calls, ElementsAre("launch /bin/sh -c wc -c", "terminate /bin/sh"));
}

TEST_F(TaskWrapperOnASimulatedMachine, PiecesArriveInTheGivenOrderAcrossBothStreams) {
  using Stream = SimulatedRun::Stream;
  const std::vector<std::vector<Stream>> orders = {
      {Stream::output, Stream::output, Stream::error, Stream::output},
      {Stream::error, Stream::output},
      {Stream::output, Stream::error, Stream::error, Stream::output, Stream::output, Stream::error},
  };
  for (const auto& order : orders) {
    SimulatedRun program;
    Texts expected = {"start"};
    for (const Stream stream : order) {
      program.pieces.push_back({stream, "x"});
      expected.emplace_back(stream == Stream::output ? "output" : "error");
    }
    expected.emplace_back("end");
    machine.addProgram("/bin/sh", program);
    Recorded run({"/bin/sh"});
    run.wrapper->startProcess();
    while (lookAtLoop() == RunLoopResult::handledSource) continue;
    EXPECT_EQ(run.events, expected);
  }
}

TEST_F(TaskWrapperOnASimulatedMachine, HandlersAcceptCompletedReads) {
  SimulatedRun program;
  program.staysOn = true;
  machine.addProgram("/bin/cat", program);
  Recorded run({"/bin/cat"});
  run.wrapper->startProcess();
  const auto nobody = std::shared_ptr<ChildOutput>();
  run.wrapper->getData({nobody, {'o', 'k'}});
  run.wrapper->getStdErr({nobody, {'n', 'o'}});
  run.wrapper->getStdErr({nobody, {}});
  EXPECT_THAT(run.events, ElementsAre("start", "output", "error"));
  EXPECT_EQ(joined(run.output), "ok");
  EXPECT_EQ(joined(run.error), "no");
  run.wrapper->getData({nobody, {}});
  EXPECT_THAT(run.events, ElementsAre("start", "output", "error", "end"));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
}

}  // namespace
}  // namespace vorlix::test
