// SPDX-License-Identifier: Apache-2.0
//
// Attributes and limits of file copies that exist only on Linux.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/FileCopy.h"
#include "tests/contract/DeviceWorlds.h"

namespace vorlix {
namespace {

using contract::TemporaryFolder;

class LinuxCopies : public testing::Test {
 protected:
  std::string make(const std::string& name, const std::string& content) const {
    const std::string path = folder_ / name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  TemporaryFolder folder_;
  LinuxFileCopy copier_;
};

TEST_F(LinuxCopies, ExtendedAttributesAreKept) {
  const std::string from = make("from", "one");
  if (setxattr(from.c_str(), "user.origin", "a\0b", 3, 0) != 0) {
    GTEST_SKIP() << "this file system has no extended attributes: " << std::strerror(errno);
  }
  EXPECT_EQ(copier_.copyItem(from, folder_ / "to"), std::nullopt);
  char value[8] = "";
  EXPECT_EQ(getxattr((folder_ / "to").c_str(), "user.origin", value, sizeof value), 3);
  EXPECT_EQ(std::memcmp(value, "a\0b", 3), 0);
}

TEST_F(LinuxCopies, TheOwnerIsKeptWithTheSetUserIDBit) {
  if (geteuid() != 0) GTEST_SKIP() << "only the super-user can give files away";
  const std::string from = make("from", "one");
  ASSERT_EQ(chown(from.c_str(), 1234, 4321), 0);
  ASSERT_EQ(chmod(from.c_str(), 04755), 0);
  EXPECT_EQ(copier_.copyItem(from, folder_ / "to"), std::nullopt);
  struct stat status = {};
  ASSERT_EQ(stat((folder_ / "to").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 1234U);
  EXPECT_EQ(status.st_gid, 4321U);
  EXPECT_EQ(status.st_mode & 07777, 04755U);
}

TEST_F(LinuxCopies, AKernelFileWithoutASizeIsCopiedCompletely) {
  EXPECT_EQ(copier_.copyItem("/proc/version", folder_ / "to"), std::nullopt);
  std::ifstream original("/proc/version");
  std::ifstream copy(folder_ / "to");
  std::string expected;
  std::string seen;
  std::getline(original, expected);
  std::getline(copy, seen);
  EXPECT_FALSE(expected.empty());
  EXPECT_EQ(seen, expected);
}

TEST_F(LinuxCopies, AFullDestinationEndsTheCopyAndTheWrittenPartRemains) {
  const std::string from = make("from", std::string(256 * 1024, 'x'));
  // A limit on the size of files simulates a full disk. Its signal would end the process, so ignore the signal.
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = signal(SIGXFSZ, SIG_IGN);
  const rlimit small = {64 * 1024, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const auto reason = copier_.copyItem(from, folder_ / "to");
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, handler);
  EXPECT_EQ(reason, "File too large: " + (folder_ / "to"));
  EXPECT_EQ(std::filesystem::file_size(folder_ / "to"), 64U * 1024U);
}

}  // namespace
}  // namespace vorlix
