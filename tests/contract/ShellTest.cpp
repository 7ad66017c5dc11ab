// SPDX-License-Identifier: Apache-2.0
//
// The contract of platform/Shell.h, and the behaviour that only the simulated machine's shell has.
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/Shell.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "DeviceWorlds.h"

namespace vorlix::contract {
namespace {

using testing::ElementsAre;

/// Replaces a standard stream by a file for the life of the object.
class StreamFrom {
 public:
  StreamFrom(int stream, const std::string& path, int flags) : stream_(stream), before_(dup(stream)) {
    const int file = open(path.c_str(), flags | O_CLOEXEC, 0600);
    if (before_ < 0 || file < 0 || dup2(file, stream) < 0) throw std::runtime_error("cannot redirect to " + path);
    close(file);
  }
  ~StreamFrom() {
    dup2(before_, stream_);
    close(before_);
  }
  StreamFrom(const StreamFrom&) = delete;
  StreamFrom& operator=(const StreamFrom&) = delete;

 private:
  int stream_;
  int before_;
};

class NativeShell : public testing::Test {
 protected:
  int run(const std::string& command) const { return ports_.shell->run(command); }
  std::string fileText(const std::string& path) const {
    const Buffer bytes = readFile(path, 0, 4096);
    return {bytes.begin(), bytes.end()};
  }

  TemporaryFolder folder_;
  const Platform ports_ = nativePlatform();
};

TEST_F(NativeShell, ReturnsTheExitStatusOfTheCommand) {
  for (const int status : {0, 1, 3, 255}) {
    const int answer = run("exit " + std::to_string(status));
    EXPECT_TRUE(WIFEXITED(answer)) << status;
    EXPECT_EQ(WEXITSTATUS(answer), status);
  }
}

TEST_F(NativeShell, ReportsASignalThatEndedTheShell) {
  const int answer = run("kill -KILL $$");
  EXPECT_TRUE(WIFSIGNALED(answer));
  EXPECT_EQ(WTERMSIG(answer), SIGKILL);
}

TEST_F(NativeShell, AMissingCommandHasStatus127) {
  const StreamFrom error(STDERR_FILENO, folder_ / "error", O_WRONLY | O_CREAT);
  const int answer = run("/no/such/program");
  EXPECT_TRUE(WIFEXITED(answer));
  EXPECT_EQ(WEXITSTATUS(answer), 127);
}

TEST_F(NativeShell, TheCommandUsesTheHostsStandardStreams) {
  writeImage(folder_ / "input", {'t', 'e', 'x', 't', '\n'}, 5);
  {
    std::fflush(nullptr);
    const StreamFrom input(STDIN_FILENO, folder_ / "input", O_RDONLY);
    const StreamFrom output(STDOUT_FILENO, folder_ / "output", O_WRONLY | O_CREAT);
    const StreamFrom error(STDERR_FILENO, folder_ / "error", O_WRONLY | O_CREAT);
    EXPECT_EQ(run("read -r line; echo \"out $line\"; echo \"err $line\" >&2"), 0);
  }
  EXPECT_EQ(fileText(folder_ / "output"), "out text\n");
  EXPECT_EQ(fileText(folder_ / "error"), "err text\n");
}

TEST_F(NativeShell, TheCommandUsesTheHostsEnvironmentAndFolder) {
  ASSERT_EQ(setenv("VORLIX_SHELL_TEST", "a value", 1), 0);
  {
    const StreamFrom output(STDOUT_FILENO, folder_ / "output", O_WRONLY | O_CREAT);
    EXPECT_EQ(run("echo \"$VORLIX_SHELL_TEST\"; pwd -P"), 0);
  }
  unsetenv("VORLIX_SHELL_TEST");
  EXPECT_EQ(fileText(folder_ / "output"), "a value\n" + std::filesystem::current_path().string() + "\n");
}

TEST_F(NativeShell, TheCommandUsesShellSyntax) {
  const std::string file = folder_ / "a name with spaces";
  EXPECT_EQ(run("printf '%s' one > '" + file + "' && printf '%s' ' two' >> '" + file + "'"), 0);
  EXPECT_EQ(fileText(file), "one two");
}

TEST_F(NativeShell, WaitsUntilTheCommandEnds) {
  const std::string file = folder_ / "late";
  EXPECT_EQ(run("sleep 0.2; echo done > '" + file + "'"), 0);
  EXPECT_EQ(fileText(file), "done\n");
}

TEST_F(NativeShell, LeavesNothingOpenAndNoChildBehind) {
  const auto before = openDescriptors();
  EXPECT_EQ(run("true"), 0);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(SimulatedShell, RecordsTheCommandRunsNothingAndReturnsTheGivenStatus) {
  const TemporaryFolder folder;
  SimulatedMachine machine;
  const Platform ports = machine.platform();
  const std::string command = "touch '" + (folder / "file") + "'";
  EXPECT_EQ(ports.shell->run(command), 0);
  machine.setShellStatus(256);
  EXPECT_EQ(ports.shell->run("exit 1"), 256);
  EXPECT_THAT(machine.journal(), ElementsAre("shell " + command, "shell exit 1"));
  EXPECT_FALSE(std::filesystem::exists(folder / "file"));
}

}  // namespace
}  // namespace vorlix::contract
