// SPDX-License-Identifier: Apache-2.0
//
// The contract of platform/ChildProcess.h, on this system and on the simulated machine.
#include <Vorlix/platform/ChildProcess.h>
#include <gmock/gmock.h>

#include <system_error>

#include "tests/support/ProcessFixture.h"

namespace vorlix::contract {
namespace {

using std::chrono::milliseconds;
using test::behaviour;
using test::comesTrue;
using test::everythingFrom;
using test::kChild;
using test::lookAtLoop;
using test::runUntil;
using test::Texts;
using testing::ElementsAre;
using testing::IsEmpty;

enum class World { native, simulated };

// Imitates those behaviours of the test child that the tests on every world need.
SimulatedRun simulatedChild(const Texts& arguments) {
  SimulatedRun run;
  const auto text = [&](size_t place) { return arguments.size() > place ? arguments[place] : ""; };
  const int number = std::stoi(arguments.at(0));
  if (!text(1).empty()) run.pieces.push_back({SimulatedRun::Stream::output, text(1)});
  switch (number) {
    case CHILD_PRINT:
      if (!text(2).empty()) run.pieces.push_back({SimulatedRun::Stream::error, text(2)});
      if (!text(3).empty()) run.status = std::stoi(text(3));
      return run;
    case CHILD_STUBBORN:
      run.ignoresTermination = true;
      run.staysOn = true;
      return run;
    case CHILD_STAY:
      run.staysOn = true;
      return run;
    default:
      throw std::invalid_argument("the simulated child has no such behaviour");
  }
}

class ChildProcessContract : public testing::TestWithParam<World> {
 protected:
  ChildProcessContract() : scope_(GetParam() == World::native ? nativePlatform() : machine_.platform()) {
    machine_.addProgram(kChild, simulatedChild);
  }

  static std::shared_ptr<Child> create(ChildOutputs outputs = ChildOutputs::separate) {
    return platform().childProcess->create(outputs, ChildInput::pipe);
  }
  static std::shared_ptr<Child> launch(const Texts& arguments, ChildOutputs outputs = ChildOutputs::separate) {
    auto child = create(outputs);
    child->launch(kChild, arguments);
    return child;
  }

 private:
  SimulatedMachine machine_;
  ScopedPlatform scope_;
};

TEST_P(ChildProcessContract, SeparateOutputsAreReadApart) {
  const auto child = launch(behaviour(CHILD_PRINT, {"out", "err"}));
  EXPECT_NE(child->standardOutput(), child->standardError());
  EXPECT_EQ(everythingFrom(*child->standardOutput()), "out");
  EXPECT_EQ(everythingFrom(*child->standardError()), "err");
}

TEST_P(ChildProcessContract, SharedOutputsAreReadInTheOrderInWhichTheyWereWritten) {
  const auto child = launch(behaviour(CHILD_PRINT, {"out", "err"}), ChildOutputs::shared);
  EXPECT_EQ(child->standardOutput(), child->standardError());
  EXPECT_EQ(everythingFrom(*child->standardOutput()), "outerr");
}

TEST_P(ChildProcessContract, TheEndOfAnOutputIsPermanent) {
  const auto child = launch(behaviour(CHILD_PRINT, {"x"}));
  const auto output = child->standardOutput();
  EXPECT_EQ(everythingFrom(*output), "x");
  EXPECT_THAT(output->read(), IsEmpty());
  EXPECT_THAT(output->read(), IsEmpty());
}

TEST_P(ChildProcessContract, AvailableBytesAreReadWithoutWaiting) {
  const auto child = launch(behaviour(CHILD_STAY, {"ready", "60000"}));
  const auto output = child->standardOutput();
  EXPECT_THAT(child->standardError()->readAvailable(), IsEmpty());
  std::string taken;
  ASSERT_TRUE(comesTrue([&] { return (taken += test::textOf(output->readAvailable())) == "ready"; }));
  EXPECT_THAT(output->readAvailable(), IsEmpty());
  child->terminate();
  EXPECT_THAT(output->read(), IsEmpty());
  EXPECT_THAT(output->readAvailable(), IsEmpty());
}

TEST_P(ChildProcessContract, TheStatusIsTheProgramsOwn) {
  const auto child = launch(behaviour(CHILD_PRINT, {"x", "", "3"}));
  everythingFrom(*child->standardOutput());
  ASSERT_TRUE(comesTrue([&] { return !child->isRunning(); }));
  EXPECT_EQ(child->terminationStatus(), 3);
  EXPECT_EQ(child->terminationStatus(), 3);
  child->terminate();  // has no effect
  EXPECT_EQ(child->terminationStatus(), 3);
}

TEST_P(ChildProcessContract, AChildThatWasNotLaunchedDoesNothing) {
  const auto child = create();
  EXPECT_FALSE(child->isRunning());
  EXPECT_EQ(child->terminationStatus(), 0);
  child->terminate();
  ASSERT_NE(child->standardOutput(), nullptr);
  ASSERT_NE(child->standardError(), nullptr);
}

TEST_P(ChildProcessContract, AMissingProgramThrowsAndRunsNothing) {
  const auto child = create();
  try {
    child->launch("/nonexistent/program", {"x"});
    FAIL() << "the program was launched";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
    EXPECT_THAT(error.what(), testing::HasSubstr("/nonexistent/program"));
  }
  EXPECT_FALSE(child->isRunning());
  EXPECT_EQ(child->terminationStatus(), 0);
}

TEST_P(ChildProcessContract, AHandleWhoseLaunchFailedCanLaunchAnotherProgram) {
  const auto child = create();
  EXPECT_THROW(child->launch("/nonexistent/program", {}), std::system_error);
  child->launch(kChild, behaviour(CHILD_PRINT, {"x"}));
  EXPECT_EQ(everythingFrom(*child->standardOutput()), "x");
}

TEST_P(ChildProcessContract, AHandleLaunchesOnce) {
  const auto child = launch(behaviour(CHILD_PRINT, {"x"}));
  EXPECT_THROW(child->launch(kChild, behaviour(CHILD_PRINT, {"y"})), std::logic_error);
  EXPECT_EQ(everythingFrom(*child->standardOutput()), "x");
}

TEST_P(ChildProcessContract, TerminatingSendsSIGTERM) {
  const auto child = launch(behaviour(CHILD_STAY, {"ready", "60000"}));
  EXPECT_EQ(test::textOf(child->standardOutput()->read()), "ready");
  EXPECT_TRUE(child->isRunning());
  EXPECT_EQ(child->terminationStatus(), 0);
  child->terminate();
  ASSERT_TRUE(comesTrue([&] { return !child->isRunning(); }));
  EXPECT_EQ(child->terminationStatus(), SIGTERM);
  EXPECT_THAT(child->standardOutput()->read(), IsEmpty());
}

TEST_P(ChildProcessContract, AChildMayIgnoreTermination) {
  const auto child = launch(behaviour(CHILD_STUBBORN, {"ready", "1000", "0"}));
  EXPECT_EQ(test::textOf(child->standardOutput()->read()), "ready");
  child->terminate();
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_TRUE(child->isRunning());
}

// -------------------------------------------------------------------------------------------- reads in the background

TEST_P(ChildProcessContract, ABackgroundReadCompletesOnceInTheDefaultMode) {
  const auto child = launch(behaviour(CHILD_STAY, {"ready", "60000"}));
  Texts chunks;
  child->standardOutput()->readInBackground([&](const Data& chunk) { chunks.push_back(test::textOf(chunk)); });
  const auto loop = platform().runLoops->current();
  EXPECT_EQ(loop->run("another mode", milliseconds(50)), RunLoopResult::noSources);
  EXPECT_THAT(chunks, IsEmpty());
  ASSERT_TRUE(runUntil([&] { return !chunks.empty(); }));
  EXPECT_THAT(chunks, ElementsAre("ready"));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources) << "there must be only one read";
  child->terminate();
}

TEST_P(ChildProcessContract, ABackgroundReadMayBeginBeforeTheLaunch) {
  const auto child = create();
  Texts chunks;
  child->standardOutput()->readInBackground([&](const Data& chunk) { chunks.push_back(test::textOf(chunk)); });
  EXPECT_EQ(lookAtLoop(), RunLoopResult::timedOut);
  child->launch(kChild, behaviour(CHILD_PRINT, {"x"}));
  ASSERT_TRUE(runUntil([&] { return !chunks.empty(); }));
  EXPECT_THAT(chunks, ElementsAre("x"));
}

TEST_P(ChildProcessContract, TheEndOfAnOutputCompletesABackgroundReadWithAnEmptyChunk) {
  const auto child = launch(behaviour(CHILD_PRINT, {"x"}));
  const auto output = child->standardOutput();
  Texts chunks;
  std::function<void()> begin = [&] {
    output->readInBackground([&](const Data& chunk) {
      chunks.push_back(test::textOf(chunk));
      if (!chunk.empty()) begin();
    });
  };
  begin();
  ASSERT_TRUE(runUntil([&] { return chunks.size() == 2; }));
  EXPECT_THAT(chunks, ElementsAre("x", ""));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
}

TEST_P(ChildProcessContract, ACancelledReadDoesNotComplete) {
  const auto child = launch(behaviour(CHILD_PRINT, {"x"}));
  const auto output = child->standardOutput();
  output->cancelBackgroundRead();  // without a pending read
  output->readInBackground([](const Data&) { FAIL() << "a cancelled read completed"; });
  output->cancelBackgroundRead();
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
  EXPECT_EQ(everythingFrom(*output), "x") << "the cancelled read must not take any bytes";
}

TEST_P(ChildProcessContract, ANewReadReplacesAPendingOne) {
  const auto child = launch(behaviour(CHILD_PRINT, {"x"}));
  Texts chunks;
  child->standardOutput()->readInBackground([](const Data&) { FAIL() << "a replaced read completed"; });
  child->standardOutput()->readInBackground([&](const Data& chunk) { chunks.push_back(test::textOf(chunk)); });
  ASSERT_TRUE(runUntil([&] { return !chunks.empty(); }));
  EXPECT_THAT(chunks, ElementsAre("x"));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
}

TEST_P(ChildProcessContract, DestroyingAnOutputCancelsItsRead) {
  auto child = launch(behaviour(CHILD_PRINT, {"x"}));
  child->standardOutput()->readInBackground([](const Data&) { FAIL() << "the read of a destroyed output completed"; });
  child.reset();
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
}

TEST_P(ChildProcessContract, AnOutputMayOutliveTheHandle) {
  auto child = launch(behaviour(CHILD_PRINT, {"x"}));
  const auto output = child->standardOutput();
  child.reset();
  EXPECT_EQ(everythingFrom(*output), "x");
}

TEST_P(ChildProcessContract, ACompletionMayReleaseEverything) {
  auto child = launch(behaviour(CHILD_PRINT, {"x"}));
  bool completed = false;
  child->standardOutput()->readInBackground([&](const Data&) {
    child.reset();
    completed = true;
  });
  ASSERT_TRUE(runUntil([&] { return completed; }));
  EXPECT_EQ(lookAtLoop(), RunLoopResult::noSources);
}

TEST_P(ChildProcessContract, ACompletionMayRunTheLoop) {
  const auto child = launch(behaviour(CHILD_PRINT, {"x", "y"}));
  Texts chunks;
  child->standardOutput()->readInBackground([&](const Data& outer) {
    child->standardError()->readInBackground([&](const Data& inner) { chunks.push_back(test::textOf(inner)); });
    EXPECT_TRUE(runUntil([&] { return !chunks.empty(); }));
    chunks.push_back(test::textOf(outer));
  });
  ASSERT_TRUE(runUntil([&] { return chunks.size() == 2; }));
  EXPECT_THAT(chunks, ElementsAre("y", "x"));
}

INSTANTIATE_TEST_SUITE_P(Worlds, ChildProcessContract, testing::Values(World::native, World::simulated),
                         [](const auto& world) { return world.param == World::native ? "native" : "simulated"; });

}  // namespace
}  // namespace vorlix::contract
