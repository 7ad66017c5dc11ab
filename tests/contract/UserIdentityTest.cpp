// SPDX-License-Identifier: Apache-2.0
//
// The contract of platform/UserIdentity.h.
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/UserIdentity.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace vorlix {
namespace {

constexpr uid_t kOrdinaryUser = 65534;

/// Runs a child process as these users. @return the user that the port reports there.
uint32_t realUserIDAs(uid_t real, uid_t effective) {
  const pid_t child = fork();
  if (child == 0) {
    if (setreuid(real, effective) != 0) _exit(2);
    _exit(nativePlatform().userIdentity->realUserID() == real ? 0 : 1);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 2) << "the child could not change its user";
  return WEXITSTATUS(status) == 0 ? real : effective;
}

TEST(NativeUserIdentity, IsTheUserWhoStartedTheProcess) {
  FILE* const pipe = popen("id -r -u", "r");
  ASSERT_NE(pipe, nullptr);
  unsigned user = 0;
  EXPECT_EQ(fscanf(pipe, "%u", &user), 1);
  EXPECT_EQ(pclose(pipe), 0);
  EXPECT_EQ(nativePlatform().userIdentity->realUserID(), user);
}

TEST(NativeUserIdentity, LaterChangesOfTheEffectiveUserDoNotCount) {
  if (getuid() != 0) GTEST_SKIP() << "only the super-user can change users";
  EXPECT_EQ(realUserIDAs(kOrdinaryUser, 0), kOrdinaryUser);
  EXPECT_EQ(realUserIDAs(0, kOrdinaryUser), 0U);
}

TEST(SimulatedUserIdentity, IsAnOrdinaryUserByDefault) {
  SimulatedMachine machine;
  const Platform ports = machine.platform();
  EXPECT_EQ(ports.userIdentity->realUserID(), 501U);
  machine.setRealUserID(0);
  EXPECT_EQ(ports.userIdentity->realUserID(), 0U);
  EXPECT_TRUE(machine.journal().empty());
}

}  // namespace
}  // namespace vorlix
