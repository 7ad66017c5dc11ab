// SPDX-License-Identifier: Apache-2.0
//
// logLine(), the formatting of messages, and log paths that are not regular files.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <thread>

#include "library/QDSDiskFunctions/Log.h"
#include "tests/unit/support/FlatFixture.h"
#include "tests/unit/support/StandardStreams.h"

namespace vorlix::test {
namespace {

using testing::HasSubstr;

using LogTest = FlatTest;

constexpr const char* kDefaultLog = "/tmp/quandrel.log";

// Returns what logLine() prints on standard error.
std::string errorsOfLogging(const char* message) {
  OutputCapture errors(STDERR_FILENO);
  logLine(message);
  return errors.text();
}

TEST_F(LogTest, MessageIsWrittenUnchanged) {
  EXPECT_EQ(logLine("one %s %n 100% \t\xC3\xBC"), 0);
  EXPECT_EQ(log(), "one %s %n 100% \t\xC3\xBC");
}

TEST_F(LogTest, MessagesWithoutLineFeedAreJoined) {
  logLine("first");
  logLine("second\n");
  logLine("third");
  EXPECT_EQ(log(), "firstsecond\nthird");
}

TEST_F(LogTest, EmptyMessageWritesNothing) {
  logLine("");
  EXPECT_EQ(log(), "");
}

TEST_F(LogTest, NullCountsAsAnEmptyMessage) {
  logLine("before");
  EXPECT_EQ(logLine(nullptr), 0);
  LogCapture capture;
  EXPECT_EQ(logLine(nullptr), 0);
  EXPECT_EQ(capture.text(), "");
  EXPECT_EQ(log(), "before");
}

TEST_F(LogTest, EarlierContentIsKept) {
  makeFile("log", {'o', 'l', 'd'});
  logLine("new");
  EXPECT_EQ(log(), "oldnew");
}

TEST_F(LogTest, AtMost1024BytesAreWritten) {
  for (const size_t length : {1023U, 1024U, 1025U, 5000U}) {
    forgetLog();
    std::string message(length, 'm');
    message[1022] = 'x';
    logLine(message.c_str());
    EXPECT_EQ(log(), message.substr(0, 1024)) << length;
  }
}

TEST_F(LogTest, FormattedMessageIsTruncatedTo1023Characters) {
  logMessage("%s", std::string(1023, 'a').c_str());
  EXPECT_EQ(log(), std::string(1023, 'a'));
  forgetLog();
  logMessage("%s", std::string(1024, 'a').c_str());
  EXPECT_EQ(log(), std::string(1023, 'a'));
}

TEST_F(LogTest, LongMessageOfALibraryFunctionIsTruncatedTo1023Characters) {
  const std::string volume = "/dev/" + std::string(1500, 'v');
  // An invalid argument ends the call after the message that names the volume. "NTFS Partition: " has 16 characters.
  EXPECT_EQ(update_mbr_and_partition("disk0", nullptr, 0, 7, volume.c_str(), 0, 0), -1);
  EXPECT_EQ(log(), "Updating MBR and PartitionNTFS Partition: " + volume.substr(0, 1023 - 16) +
                       "Can't change parition ID: no partition number specified.");
}

TEST_F(LogTest, FileIsReopenedOnEveryCall) {
  logLine("before");
  std::filesystem::rename(logPath(), folder / "rotated");
  logLine("after");
  EXPECT_EQ(contentOf(folder / "rotated"), "before");
  EXPECT_EQ(log(), "after");
}

TEST_F(LogTest, FileIsCreatedWithTheProcessesDefaultPermissions) {
  const mode_t before = umask(027);
  logLine("x");
  umask(before);
  struct stat status = {};
  ASSERT_EQ(stat(logPath().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);  // 0666 without 027
}

TEST_F(LogTest, NothingIsPrintedWhateverTheVerboseFlag) {
  for (const int32_t flag : {0, 1, -1}) {
    forgetLog();
    verbose_flag = flag;
    OutputCapture output(STDOUT_FILENO);
    OutputCapture errors(STDERR_FILENO);
    logLine("quiet");
    EXPECT_EQ(errors.text(), "");
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(log(), "quiet");
    EXPECT_EQ(verbose_flag, flag);
  }
}

TEST_F(LogTest, ThreadsAppendWholeMessages) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 50;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i] {
      const std::string message(100, static_cast<char>('a' + i));
      for (int n = 0; n < kMessages; ++n) logLine((message + "\n").c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::istringstream lines(log());
  std::vector<int> seen(kThreads, 0);
  for (std::string line; std::getline(lines, line);) {
    ASSERT_EQ(line, std::string(100, line[0]));
    ++seen.at(static_cast<size_t>(line[0] - 'a'));
  }
  EXPECT_EQ(seen, std::vector<int>(kThreads, kMessages));
}

// --------------------------------------------------------------------------------------------- files that are not logs

TEST_F(LogTest, UnopenableFileLosesTheMessageAndIsReportedOnStandardError) {
  machine.setLogFile(folder / "no-such-folder/log");
  EXPECT_EQ(errorsOfLogging("lost"), "error opening log file");
  EXPECT_FALSE(std::filesystem::exists(folder / "no-such-folder"));
  EXPECT_EQ(logLine("lost too"), 0);
}

TEST_F(LogTest, FolderAsTheLogIsRefused) {
  std::filesystem::create_directory(logPath());
  EXPECT_EQ(errorsOfLogging("lost"), "error opening log file");
}

TEST_F(LogTest, SymbolicLinkAsTheLogIsNotFollowed) {
  const std::string target = makeFile("target", {'k', 'e', 'e', 'p'});
  std::filesystem::create_symlink(target, logPath());
  EXPECT_EQ(errorsOfLogging("lost"), "error opening log file");
  EXPECT_EQ(contentOf(target), "keep");
  EXPECT_TRUE(std::filesystem::is_symlink(logPath()));
}

TEST_F(LogTest, DanglingSymbolicLinkAsTheLogCreatesNothing) {
  std::filesystem::create_symlink(folder / "target", logPath());
  EXPECT_EQ(errorsOfLogging("lost"), "error opening log file");
  EXPECT_FALSE(std::filesystem::exists(folder / "target"));
}

TEST_F(LogTest, HardLinkToAnotherFileAsTheLogIsNotWritten) {
  const std::string target = makeFile("target", {'k', 'e', 'e', 'p'});
  std::filesystem::create_hard_link(target, logPath());
  EXPECT_EQ(errorsOfLogging("lost"), "error opening log file");
  EXPECT_FALSE(canOpenLog());
  EXPECT_EQ(contentOf(target), "keep");
  std::filesystem::remove(target);  // now the log is the file's only name
  EXPECT_EQ(errorsOfLogging("told"), "");
  EXPECT_EQ(log(), "keeptold");
}

TEST_F(LogTest, FIFOWithoutReaderAsTheLogDoesNotBlock) {
  ASSERT_EQ(mkfifo(logPath().c_str(), 0600), 0);
  EXPECT_EQ(errorsOfLogging("lost"), "error opening log file");
}

TEST_F(LogTest, FIFOWithReaderAsTheLogIsNotWritten) {
  ASSERT_EQ(mkfifo(logPath().c_str(), 0600), 0);
  const int reader = open(logPath().c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  EXPECT_EQ(errorsOfLogging("lost"), "error opening log file");
  char byte = 0;
  EXPECT_EQ(read(reader, &byte, 1), 0);
  close(reader);
}

TEST_F(LogTest, UnopenableLogDoesNotMakeTheCallerFail) {
  machine.setLogFile(folder / "no-such-folder/log");
  machine.addDisk("disk0", 1024, 512);
  OutputCapture errors(STDERR_FILENO);
  const uint64_t size = getblocksize("disk0");
  EXPECT_EQ(errors.text(), "error opening log fileerror opening log file");  // once per message
  EXPECT_EQ(size, 512U);
}

// ------------------------------------------------------------------------------------------------ the default file

TEST_F(LogTest, MessagesAreAppendedToTheDefaultFile) {
  const ScopedPlatform native(nativePlatform());
  EXPECT_EQ(logFilePath(), kDefaultLog);
  std::error_code absent;
  const auto sizeBefore = std::filesystem::file_size(kDefaultLog, absent);
  const std::string message = "unit test of process " + std::to_string(getpid()) + " in " + folder / "" + "\n";
  OutputCapture errors(STDERR_FILENO);
  logLine(message.c_str());
  EXPECT_EQ(errors.text(), "");
  // Other processes may log at the same time, so search everything after the old content.
  const std::string content = contentOf(kDefaultLog);
  const size_t from = absent ? 0 : static_cast<size_t>(sizeBefore);
  ASSERT_GE(content.size(), from + message.size());
  EXPECT_THAT(content.substr(from), HasSubstr(message));
}

// ------------------------------------------------------------------------------------------------------- captures

TEST_F(LogTest, CaptureCollectsMessagesWhichAlsoGoToTheFile) {
  logLine("before ");
  {
    LogCapture capture;
    logLine("during ");
    EXPECT_EQ(capture.text(), "during ");
  }
  logLine("after");
  EXPECT_EQ(log(), "before during after");
}

TEST_F(LogTest, InnermostCaptureCollects) {
  LogCapture outer;
  logLine("a");
  {
    LogCapture inner;
    logLine("b");
    EXPECT_EQ(inner.text(), "b");
  }
  logLine("c");
  EXPECT_EQ(outer.text(), "ac");
}

TEST_F(LogTest, CaptureIgnoresOtherThreads) {
  LogCapture capture;
  std::thread([] { logLine("elsewhere"); }).join();
  EXPECT_EQ(capture.text(), "");
  EXPECT_EQ(log(), "elsewhere");
}

TEST_F(LogTest, CaptureHoldsTheSame1024BytesAsTheFile) {
  LogCapture capture;
  logLine(std::string(2000, 'z').c_str());
  EXPECT_EQ(capture.text(), std::string(1024, 'z'));
  EXPECT_EQ(log(), capture.text());
}

}  // namespace
}  // namespace vorlix::test
