// SPDX-License-Identifier: Apache-2.0
//
// Running a program until its output ends, with real children.
#include <Vorlix/QDTaskHelper.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <system_error>

#include "tests/support/ProcessFixture.h"

namespace vorlix::test {
namespace {

class TaskHelperTest : public NativeProcessTest {
 protected:
  std::string run(const std::string& path, const Texts& options) { return helper.runCommand(path, options); }
  std::string shell(const std::string& line) { return run("/bin/sh", {"-c", line}); }
  std::string child(int number, const Texts& arguments) { return run(kChild, behaviour(number, arguments)); }

  QDTaskHelper helper;
};

TEST_F(TaskHelperTest, JoinsTheLinesAndLogsEachOne) {
  EXPECT_EQ(shell("echo a; echo b"), "ab");
  EXPECT_EQ(log(), "     a\n     b\n     \n");
}

TEST_F(TaskHelperTest, OutputWithoutAFinalLineFeedHasNoEmptyLastLine) {
  EXPECT_EQ(child(CHILD_PRINT, {"a\nb"}), "ab");
  EXPECT_EQ(log(), "     a\n     b\n");
}

TEST_F(TaskHelperTest, NoOutputIsOneEmptyLine) {
  EXPECT_EQ(child(CHILD_PRINT, {}), "");
  EXPECT_EQ(log(), "     \n");
}

TEST_F(TaskHelperTest, EmptyLinesAreLogged) {
  EXPECT_EQ(child(CHILD_PRINT, {"\n\nx\n"}), "x");
  EXPECT_EQ(log(), "     \n     \n     x\n     \n");
}

TEST_F(TaskHelperTest, StandardErrorIsPartOfTheResult) {
  EXPECT_EQ(child(CHILD_PRINT, {"", "only errors\n"}), "only errors");
  EXPECT_EQ(log(), "     only errors\n     \n");
}

TEST_F(TaskHelperTest, BothOutputsAreInTheOrderInWhichTheyWereWritten) {
  EXPECT_EQ(shell("echo a; echo b >&2; echo c; echo d >&2"), "abcd");
  EXPECT_EQ(log(), "     a\n     b\n     c\n     d\n     \n");
}

TEST_F(TaskHelperTest, CarriageReturnsAreKept) {
  EXPECT_EQ(child(CHILD_PRINT, {"a\r\nb\r\n"}), "a\rb\r");
  EXPECT_EQ(log(), "     a\r\n     b\r\n     \n");
}

TEST_F(TaskHelperTest, PercentSignsAreLoggedUnchanged) {
  EXPECT_EQ(child(CHILD_PRINT, {"100%s %n\n"}), "100%s %n");
  EXPECT_EQ(log(), "     100%s %n\n     \n");
}

TEST_F(TaskHelperTest, ALineThatJustFitsIsLoggedCompletely) {
  const std::string line(1017, 'x');  // five spaces, the line and its line feed make 1023
  EXPECT_EQ(child(CHILD_PRINT, {line}), line);
  EXPECT_EQ(log(), "     " + line + "\n");
}

TEST_F(TaskHelperTest, ALongerLineIsTruncatedOnlyInTheLog) {
  const std::string line(1018, 'x');
  EXPECT_EQ(child(CHILD_PRINT, {line + "\nnext"}), line + "next");
  EXPECT_EQ(log(), "     " + line + "     next\n") << "the line feed does not fit";
}

TEST_F(TaskHelperTest, AVeryLongLineIsTruncatedToTheBuffer) {
  const std::string line(5000, 'y');
  EXPECT_EQ(child(CHILD_PRINT, {line}), line);
  EXPECT_EQ(log(), "     " + line.substr(0, 1018));
}

TEST_F(TaskHelperTest, AZeroByteEndsOnlyTheLoggedLine) {
  EXPECT_EQ(shell("printf 'a\\000b\\nc'"), std::string("a\0bc", 4));
  EXPECT_EQ(log(), "     a\n     c\n");
}

TEST_F(TaskHelperTest, OutputThatIsNotUtf8ReturnsNothingAndLogsNothing) {
  EXPECT_EQ(child(CHILD_PRINT, {"good line\nbad \xFF byte\n"}), "");
  EXPECT_EQ(child(CHILD_PRINT, {"cut short \xE2\x82"}), "");
  EXPECT_EQ(child(CHILD_PRINT, {"good", "\xC0\x80"}), "");
  EXPECT_EQ(log(), "");
}

TEST_F(TaskHelperTest, CharactersThatArriveInTwoPiecesAreJoined) {
  EXPECT_EQ(child(CHILD_SPLIT, {"1", "gr\xC3", "\xBC\xC3\x9F\n"}), "gr\xC3\xBC\xC3\x9F");
  EXPECT_EQ(log(), "     gr\xC3\xBC\xC3\x9F\n     \n");
}

TEST_F(TaskHelperTest, ArgumentsReachTheProgramUnchanged) {
  EXPECT_EQ(child(CHILD_ARGUMENTS, {"a b", "", "$HOME", "*", "'\"", "gr\xC3\xBC\xC3\x9F"}),
            "[a b][][$HOME][*]['\"][gr\xC3\xBC\xC3\x9F]");
  EXPECT_EQ(child(CHILD_ARGUMENTS, {}), "");
}

TEST_F(TaskHelperTest, TheExitStatusIsIgnored) {
  EXPECT_EQ(child(CHILD_PRINT, {"said", "", "3"}), "said");
  EXPECT_EQ(shell("echo before; kill -KILL $$"), "before");
}

TEST_F(TaskHelperTest, AMissingProgramThrows) {
  try {
    run("/nonexistent/program", {"x"});
    FAIL() << "the program was launched";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
  }
  EXPECT_EQ(log(), "");
  EXPECT_FALSE(hasChildren());
}

TEST_F(TaskHelperTest, AFileThatIsNotExecutableThrows) {
  std::ofstream(inFolder("data")) << "no program";
  EXPECT_THROW(run(inFolder("data"), {}), std::system_error);
  EXPECT_THROW(run(inFolder(""), {}), std::system_error) << "a folder";
  EXPECT_THROW(run("", {}), std::system_error);
  EXPECT_EQ(log(), "");
}

TEST_F(TaskHelperTest, ANameWithoutAFolderIsNotSearchedInPath) {
  EXPECT_THROW(run("sh", {"-c", "echo found"}), std::system_error);
}

TEST_F(TaskHelperTest, ReadsWhileTheProgramWritesMoreThanAPipeHolds) {
  constexpr size_t kCount = size_t{4} << 20;  // a pipe holds 64 KiB
  const std::string result = child(CHILD_FLOOD, {std::to_string(kCount)});
  EXPECT_EQ(result.size(), 2 * kCount);
  EXPECT_EQ(static_cast<size_t>(std::count(result.begin(), result.end(), 'o')), kCount);
  EXPECT_EQ(static_cast<size_t>(std::count(result.begin(), result.end(), 'e')), kCount);
  EXPECT_EQ(log().size(), 1023u);
}

TEST_F(TaskHelperTest, WaitsForEveryProcessThatHoldsTheOutput) {
  EXPECT_EQ(child(CHILD_GRANDCHILD, {"late", "200"}), "late");
}

TEST_F(TaskHelperTest, DoesNotWaitForTheProgramOnceItsOutputHasEnded) {
  EXPECT_EQ(child(CHILD_SLOW_EXIT, {"3000", "0"}), "");
  EXPECT_TRUE(hasChildren() && !hasZombie()) << "the program must still run";
  ASSERT_TRUE(comesTrue(hasZombie));
  EXPECT_TRUE(nothingIsLeftToCollect());
}

TEST_F(TaskHelperTest, StandardInputIsTheHosts) {
  std::ofstream(inFolder("input")) << "from the host";
  const int before = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  ASSERT_GE(before, 0) << "this test needs a standard input that it can restore";
  const int input = open(inFolder("input").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(dup2(input, STDIN_FILENO), STDIN_FILENO);
  close(input);
  EXPECT_EQ(run("/bin/cat", {}), "from the host");
  ASSERT_EQ(dup2(before, STDIN_FILENO), STDIN_FILENO);
  close(before);
}

TEST_F(TaskHelperTest, ManyRunsLeaveNoProcessBehind) {
  for (int i = 0; i < 20; ++i) ASSERT_EQ(child(CHILD_PRINT, {std::to_string(i)}), std::to_string(i));
  EXPECT_TRUE(comesTrue([] { return nothingIsLeftToCollect() && !hasChildren(); }));
}

TEST_F(TaskHelperTest, AnyThreadMayRunAProgram) {
  std::vector<std::string> results(4);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < results.size(); ++i) {
    threads.emplace_back([&results, i] {
      const LogCapture captured(LogCapture::File::leftAlone);
      for (int k = 0; k < 5; ++k) {
        results[i] += QDTaskHelper::sharedTaskHelper()->runCommand(kChild, behaviour(CHILD_PRINT, {std::to_string(i)}));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(results, testing::ElementsAre("00000", "11111", "22222", "33333"));
  EXPECT_TRUE(comesTrue([] { return nothingIsLeftToCollect() && !hasChildren(); }));
}

TEST_F(TaskHelperTest, TheSharedInstanceIsTheSameEachTime) {
  const auto shared = QDTaskHelper::sharedTaskHelper();
  ASSERT_TRUE(shared);
  EXPECT_EQ(QDTaskHelper::sharedTaskHelper(), shared);
  EXPECT_EQ(shared->runCommand(kChild, behaviour(CHILD_PRINT, {"a\nb\n"})), "ab");
  EXPECT_EQ(log(), "     a\n     b\n     \n");
}

// ------------------------------------------------------------------------------------------------- simulated machine

TEST(TaskHelperOnASimulatedMachine, RunsTheMachinesPrograms) {
  SimulatedMachine machine;
  SimulatedRun run;
  run.pieces = {{SimulatedRun::Stream::output, "a\n"}, {SimulatedRun::Stream::error, "b\n"}};
  machine.addProgram("/usr/bin/grep", run);
  const ScopedPlatform scope(machine.platform());
  const LogCapture captured(LogCapture::File::leftAlone);
  EXPECT_EQ(QDTaskHelper().runCommand("/usr/bin/grep", {"-c", "x"}), "ab");
  EXPECT_EQ(captured.text(), "     a\n     b\n     \n");
  EXPECT_THAT(machine.journal(), testing::ElementsAre("launch /usr/bin/grep -c x"));
  EXPECT_THROW(QDTaskHelper().runCommand("/usr/bin/sed", {}), std::system_error);
}

}  // namespace
}  // namespace vorlix::test
