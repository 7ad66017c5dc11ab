// SPDX-License-Identifier: Apache-2.0
//
// Running a program in the background, with real children and this system's own run loop.
#include <Vorlix/QDTaskWrapperWithBlocks.h>
#include <Vorlix/QDTaskWrapperWithBlocks/StatusPause.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <optional>
#include <system_error>

#include "support/ProcessFixture.h"

namespace vorlix::test {
namespace {

using std::chrono::milliseconds;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

using Pieces = std::vector<std::optional<std::string>>;

std::shared_ptr<std::vector<std::string>> listOf(Texts texts) {
  return std::make_shared<std::vector<std::string>>(std::move(texts));
}

std::string joined(const Pieces& pieces) {
  std::string all;
  for (const auto& piece : pieces) all += piece.value_or("(absent)");
  return all;
}

/// A wrapper and what its callbacks were given.
struct Recorded {
  explicit Recorded(Texts command) : Recorded(listOf(std::move(command))) {}
  explicit Recorded(std::shared_ptr<const std::vector<std::string>> command) {
    wrapper =
        QDTaskWrapperWithBlocks::initWithStartBlock([this] { note("start", onStart); }, [this] { note("end", onEnd); },
                                                    [this](const std::optional<std::string>& text) {
                                                      output.push_back(text);
                                                      note("output", onOutput);
                                                    },
                                                    [this](const std::optional<std::string>& text) {
                                                      error.push_back(text);
                                                      note("error", onError);
                                                    },
                                                    std::move(command));
  }

  void note(const char* event, const std::function<void()>& then) {
    events.emplace_back(event);
    threads.push_back(std::this_thread::get_id());
    if (then) then();
  }

  ptrdiff_t count(const std::string& event) const { return std::count(events.begin(), events.end(), event); }
  bool runToEnd() const {
    return runUntil([this] { return count("end") > 0; });
  }

  std::shared_ptr<QDTaskWrapperWithBlocks> wrapper;
  std::function<void()> onStart, onEnd, onOutput, onError;
  Texts events;
  std::vector<std::thread::id> threads;
  Pieces output;
  Pieces error;
};

// What the replaced pause was asked for, and what happens in it.
std::vector<milliseconds> pauses;
std::function<void()> inThePause;

class TaskWrapperTest : public NativeProcessTest {
 protected:
  TaskWrapperTest() {
    pauses.clear();
    inThePause = nullptr;
    before_ = setStatusPause([](milliseconds time) {
      pauses.push_back(time);
      if (inThePause) inThePause();
    });
  }
  ~TaskWrapperTest() override { setStatusPause(before_); }

  /// The status of a child that is about to end.
  static int32_t statusAtTheEnd(Recorded& run) {
    int32_t status = -999;
    comesTrue([&] { return (status = run.wrapper->terminationStatus()) != -999; });
    return status;
  }

 private:
  StatusPause before_ = nullptr;
};

// -------------------------------------------------------------------------------------------------------------- a run

TEST_F(TaskWrapperTest, DeliversAShortLineInOneCallAndThenEndsOnce) {
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

TEST_F(TaskWrapperTest, MakingOneStartsNothing) {
  const Recorded run({"/bin/sh", "-c", "echo hello"});
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  EXPECT_THAT(run.events, IsEmpty());
  EXPECT_FALSE(hasChildren());
}

TEST_F(TaskWrapperTest, TheShellIsGivenExactlyTwoArguments) {
  Recorded run({"/bin/sh", "-c", "echo $0 $#"});  // the shell's own name, and what is left after the command line
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

TEST_F(TaskWrapperTest, TheStartCallbackRunsBeforeThereIsAProcess) {
  Recorded run(childCommand(CHILD_PRINT, {"x"}));
  bool hadChildren = true;
  run.onStart = [&] { hadChildren = hasChildren(); };
  run.wrapper->startProcess();
  EXPECT_THAT(run.events, ElementsAre("start"));
  EXPECT_FALSE(hadChildren);
  EXPECT_TRUE(hasChildren());
  ASSERT_TRUE(run.runToEnd());
}

TEST_F(TaskWrapperTest, NothingArrivesUnlessTheLoopRunsInTheDefaultMode) {
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
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources) << "another thread's loop has nothing to do with it";
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

TEST_F(TaskWrapperTest, EachReadingOfTheLoopDeliversAtMostOnePiece) {
  Recorded run(childCommand(CHILD_FLOOD, {"1000000"}));
  run.wrapper->startProcess();
  const auto loop = platform().runLoops->current();
  while (run.count("end") == 0) {
    const size_t before = run.events.size();
    ASSERT_NE(loop->run(kDefaultRunLoopMode, milliseconds(60000)), RunLoopResult::timedOut);
    ASSERT_LE(run.events.size(), before + 1);
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

TEST_F(TaskWrapperTest, TheEndOfStandardErrorDoesNotEndTheRun) {
  Recorded run(childCommand(CHILD_CLOSE_ERROR, {"still there", "400"}));
  run.wrapper->startProcess();
  runFor(milliseconds(100));
  EXPECT_THAT(run.events, ElementsAre("start"));
  ASSERT_TRUE(run.runToEnd());
  EXPECT_THAT(run.events, ElementsAre("start", "output", "end"));
  EXPECT_EQ(joined(run.output), "still there");
}

TEST_F(TaskWrapperTest, AnEndedStandardErrorKeepsTheLoopAsleep) {
  Recorded run(childCommand(CHILD_CLOSE_ERROR, {"x", "60000"}));
  run.wrapper->startProcess();
  const std::clock_t before = std::clock();
  const int handled = runFor(milliseconds(550));
  const double used = static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC;
  EXPECT_GE(handled, 2) << "empty reads go on completing";
  EXPECT_LE(handled, 7) << "but not more than ten a second";
  EXPECT_LT(used, 0.25);
  EXPECT_THAT(run.events, ElementsAre("start"));
  run.wrapper->stopProcess();
  EXPECT_EQ(statusAtTheEnd(run), SIGTERM);
}

TEST_F(TaskWrapperTest, TheEndOfOutputStopsAProgramThatGoesOn) {
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

TEST_F(TaskWrapperTest, TheEndCallbackMayLetGoOfTheWrapper) {
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

// ----------------------------------------------------------------------------------------------------------- stopping

TEST_F(TaskWrapperTest, StoppingEndsTheListeningAndTheProcess) {
  Recorded run(childCommand(CHILD_STAY, {"ready", "60000"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(runUntil([&] { return run.count("output") == 1; }));
  run.wrapper->stopProcess();
  EXPECT_THAT(run.events, ElementsAre("start", "output", "end"));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  EXPECT_EQ(statusAtTheEnd(run), SIGTERM);
  EXPECT_EQ(run.count("end"), 1);
}

TEST_F(TaskWrapperTest, OutputThatIsWaitingWhenARunIsStoppedIsDropped) {
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
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources) << "no further read was begun";
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

TEST_F(TaskWrapperTest, StoppingIsPoliteAndDoesNotWait) {
  Recorded run(childCommand(CHILD_STUBBORN, {"ready", "400", "7"}));
  run.wrapper->startProcess();
  ASSERT_TRUE(runUntil([&] { return run.count("output") == 1; }));
  run.wrapper->stopProcess();
  EXPECT_EQ(run.count("end"), 1);
  EXPECT_EQ(statusAtTheEnd(run), 7);
}

TEST_F(TaskWrapperTest, EveryStopCallsTheEndCallback) {
  Recorded run(childCommand(CHILD_PRINT, {"x"}));
  run.wrapper->stopProcess();  // before there is a process
  EXPECT_THAT(run.events, ElementsAre("end"));
  run.wrapper->startProcess();
  ASSERT_TRUE(runUntil([&] { return run.count("end") == 2; }));
  run.wrapper->stopProcess();  // after it has ended
  EXPECT_THAT(run.events, ElementsAre("end", "start", "output", "end", "end"));
  EXPECT_EQ(statusAtTheEnd(run), 0);
}

TEST_F(TaskWrapperTest, LettingGoBeforeTheEndLeavesTheProcessToItself) {
  const std::string file = inFolder("written");
  Recorded run({"/bin/sh", "-c", "sleep 0.2; echo done > " + file});
  run.wrapper->startProcess();
  run.wrapper.reset();
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  EXPECT_TRUE(comesTrue([&] { return contentOf(file) == "done\n"; })) << "it was not asked to end";
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
  EXPECT_EQ(statusAtTheEnd(run), SIGTERM) << "the new process";
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources) << "both runs' outputs are let be";
  EXPECT_EQ(run.count("start"), 2);
  EXPECT_EQ(run.count("end"), 1);
  ASSERT_TRUE(comesTrue([] { return nothingIsLeftToCollect() && !hasChildren(); }));
}

TEST_F(TaskWrapperTest, TheListIsSharedAndReadAtTheStart) {
  const auto command = listOf(childCommand(CHILD_PRINT, {"old"}));
  Recorded run(command);
  EXPECT_EQ(command.use_count(), 2);
  command->at(2) = "new";
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(joined(run.output), "new");
}

// ------------------------------------------------------------------------------------------------------------- failure

TEST_F(TaskWrapperTest, AFailedLaunchRaisesAfterTheStartCallbackAndWithTheReadsBegun) {
  Recorded run({"/nonexistent/program"});
  try {
    run.wrapper->startProcess();
    FAIL() << "was launched";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
  }
  EXPECT_THAT(run.events, ElementsAre("start"));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::timedOut) << "the loop has sources";
  EXPECT_EQ(run.wrapper->terminationStatus(), 0);
  EXPECT_FALSE(hasChildren());
  run.wrapper->stopProcess();
  EXPECT_THAT(run.events, ElementsAre("start", "end"));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
}

TEST_F(TaskWrapperTest, AProgramThatMayNotBeExecutedRaises) {
  std::ofstream(inFolder("data")) << "no program";
  Recorded run({inFolder("data")});
  EXPECT_THROW(run.wrapper->startProcess(), std::system_error);
  run.wrapper->stopProcess();
}

TEST_F(TaskWrapperTest, AStartAfterAFailedOneRunsToItsOwnEnd) {
  const auto command = listOf({"/nonexistent/program"});
  Recorded run(command);
  EXPECT_THROW(run.wrapper->startProcess(), std::system_error);
  *command = childCommand(CHILD_PRINT, {"x"});
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_THAT(run.events, ElementsAre("start", "start", "output", "end"));
}

TEST_F(TaskWrapperTest, AnEmptyListRaisesAfterTheStartCallback) {
  Recorded run(Texts{});
  EXPECT_THROW(run.wrapper->startProcess(), std::out_of_range);
  EXPECT_THAT(run.events, ElementsAre("start"));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  Recorded listless(std::shared_ptr<const std::vector<std::string>>{});
  EXPECT_THROW(listless.wrapper->startProcess(), std::out_of_range);
  EXPECT_THAT(listless.events, ElementsAre("start"));
}

TEST_F(TaskWrapperTest, AMissingCallbackRaises) {
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
  EXPECT_EQ(run.wrapper->terminationStatus(), 3) << "it can be asked for again";
  EXPECT_THAT(pauses, IsEmpty()) << "a process that has ended is not waited for";
}

TEST_F(TaskWrapperTest, AProgramThatEndedByASignalHasItsNumber) {
  Recorded run(childCommand(CHILD_SIGNAL, {std::to_string(SIGKILL)}));
  run.wrapper->startProcess();
  ASSERT_TRUE(run.runToEnd());
  EXPECT_EQ(statusAtTheEnd(run), SIGKILL);
}

TEST_F(TaskWrapperTest, AProcessThatKeepsRunningHasNoStatusAfterFiveSeconds) {
  Recorded run(childCommand(CHILD_STAY, {"", "60000"}));
  run.wrapper->startProcess();
  EXPECT_EQ(run.wrapper->terminationStatus(), -999);
  EXPECT_THAT(pauses, ElementsAre(milliseconds(5000)));
  run.wrapper->stopProcess();
  EXPECT_EQ(statusAtTheEnd(run), SIGTERM);
}

TEST_F(TaskWrapperTest, AProcessThatEndsDuringThePauseHasItsStatus) {
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

TEST(TaskWrapperPause, TheLibrarysOwnPauseSleeps) {
  const StatusPause own = setStatusPause(nullptr);
  setStatusPause(own);
  const auto start = std::chrono::steady_clock::now();
  own(milliseconds(30));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(30));
}

// ------------------------------------------------------------------------------------------------- simulated machine

class TaskWrapperOnASimulatedMachine : public testing::Test {
 protected:
  SimulatedMachine machine;
  ScopedPlatform scope{machine.platform()};
};

TEST_F(TaskWrapperOnASimulatedMachine, RunsWhatTheMachineHas) {
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

TEST_F(TaskWrapperOnASimulatedMachine, HandlersTakeCompletedReads) {
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
