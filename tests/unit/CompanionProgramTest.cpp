// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/CompanionProgram.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <gtest/gtest.h>
#include "platform/posix/CompanionFolders.h"

namespace {

TEST(CompanionProgramTest, IsAResourceOfTheHostInToolsBin) {
  vorlix::SimulatedMachine machine;
  const vorlix::ScopedPlatform scope(machine.platform());
  machine.addResource("reader", "", "/Host/reader");
  EXPECT_FALSE(vorlix::companionProgram("reader"));
  machine.addResource("reader", "", "/Host/tools/bin/reader", "tools/bin");
  EXPECT_EQ(vorlix::companionProgram("reader"), "/Host/tools/bin/reader");
}

TEST(CompanionProgramTest, TheFoldersMoveWithTheCodeAndEndWithTheBuildsOwn) {
  const auto built = vorlix::companionFolders({});
  ASSERT_EQ(built.size(), 1U);
  EXPECT_TRUE(built.front().is_absolute());
  const auto folders = vorlix::companionFolders("/opt/thing/bin/program");
  EXPECT_EQ(folders.front(), "/opt/thing/libexec/vorlix-1");
  EXPECT_EQ(folders.back(), built.front());
}

TEST(CompanionProgramTest, ANameThatIsNotAbsoluteSaysNothingAboutThePrefix) {
  EXPECT_EQ(vorlix::companionFolders("bin/program"), vorlix::companionFolders({}));
}

}  // namespace
