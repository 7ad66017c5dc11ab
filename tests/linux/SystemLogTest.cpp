// SPDX-License-Identifier: Apache-2.0
//
// Messages for the system's log, which syslog(3) also prints on standard error on request.
#include <gtest/gtest.h>
#include <syslog.h>

#include "platform/linux/SystemLog.h"

namespace vorlix::test {
namespace {

class SystemLogTest : public testing::Test {
 protected:
  SystemLogTest() { openlog("client", LOG_PERROR, LOG_USER); }
  ~SystemLogTest() override {
    setlogmask(LOG_UPTO(LOG_DEBUG));
    closelog();
  }

  static std::string written(const std::string& text, int levels) {
    setlogmask(levels);
    testing::internal::CaptureStderr();
    LinuxSystemLog().warn(text);
    return testing::internal::GetCapturedStderr();
  }
};

TEST_F(SystemLogTest, TheLibrarysNameComesBeforeTheText) {
  EXPECT_EQ(written("Checking if bootable", LOG_UPTO(LOG_DEBUG)), "client: Vorlix: Checking if bootable\n");
}

TEST_F(SystemLogTest, TheLevelIsWarning) {
  EXPECT_NE(written("text", LOG_MASK(LOG_WARNING)), "");
  EXPECT_EQ(written("text", ~LOG_MASK(LOG_WARNING)), "");
}

TEST_F(SystemLogTest, PlaceholdersAreNotExpanded) {
  EXPECT_EQ(written("%s %n 100%", LOG_UPTO(LOG_DEBUG)), "client: Vorlix: %s %n 100%\n");
}

}  // namespace
}  // namespace vorlix::test
