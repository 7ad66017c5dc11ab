// SPDX-License-Identifier: Apache-2.0
//
// Running the programs that copy files of mirrored volumes.
#include "platform/linux/Command.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <string>

namespace vorlix {
namespace {

TEST(CommandTest, OutputIsForwardedAndErrorsAreKept) {
  std::string printed;
  Command command;
  command.arguments = {"sh", "-c", "echo out; echo wrong >&2; exit 3"};
  command.output = [&](const char* bytes, size_t count) { printed.append(bytes, count); };
  const CommandResult result = runCommand(command);
  EXPECT_EQ(printed, "out\n");
  EXPECT_EQ(result.errors, "wrong");
  EXPECT_EQ(result.status, 3);
}

TEST(CommandTest, AProgramThatRunsForeverIsKilled) {
  Command command;
  command.arguments = {"sh", "-c", "while :; do :; done"};
  command.processorSeconds = 1;
  const CommandResult result = runCommand(command);
  EXPECT_EQ(result.launchError, 0);
  EXPECT_EQ(result.status, -1);
  EXPECT_FALSE(result.succeeded());
}

TEST(CommandTest, AMissingProgramIsALaunchError) {
  Command command;
  command.arguments = {"no program of that name"};
  EXPECT_EQ(runCommand(command).launchError, ENOENT);
}

}  // namespace
}  // namespace vorlix
