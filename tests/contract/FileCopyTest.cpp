// SPDX-License-Identifier: Apache-2.0
//
// The contract of platform/FileCopy.h, on every machine that is possible here.
#include <Vorlix/platform/FileCopy.h>
#include <sys/stat.h>

#include <chrono>

#include "DeviceWorlds.h"

namespace vorlix::contract {
namespace {

namespace fs = std::filesystem;

struct stat fileStatus(const std::string& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) throw std::runtime_error("cannot stat " + path);
  return status;
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// 2001-02-03 04:05:06 UTC, with nanoseconds that a file system may round.
constexpr timespec kOldTime = {981173106, 123456789};

void age(const std::string& path) {
  const timespec times[2] = {kOldTime, kOldTime};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

class FileCopyContract : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    copier_ = (GetParam() == "Native" ? nativePlatform() : machine_.platform()).fileCopy;
    ASSERT_TRUE(copier_);
  }

  std::string make(const std::string& name, const std::string& content, mode_t mode = 0644) const {
    const std::string path = folder_ / name;
    std::ofstream(path, std::ios::binary) << content;
    chmod(path.c_str(), mode);
    return path;
  }

  std::optional<std::string> copy(const std::string& source, const std::string& destination) const {
    return copier_->copyItem(folder_ / source, folder_ / destination);
  }

  TemporaryFolder folder_;
  SimulatedMachine machine_;
  std::shared_ptr<FileCopy> copier_;
};

TEST_P(FileCopyContract, CopiesAFileWithItsModeAndTime) {
  std::string content(3 * 1024 * 1024 + 17, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 31 + i / 4096);
  make("from", content, 0640);
  age(folder_ / "from");
  EXPECT_EQ(copy("from", "to"), std::nullopt);
  EXPECT_TRUE(contentOf(folder_ / "to") == content);
  const struct stat copied = fileStatus(folder_ / "to");
  EXPECT_EQ(copied.st_mode & 07777, 0640U);
  EXPECT_EQ(copied.st_mtime, kOldTime.tv_sec);
  EXPECT_TRUE(contentOf(folder_ / "from") == content);
}

TEST_P(FileCopyContract, CopiesAnEmptyFileAndAReadOnlyOne) {
  make("empty", "");
  make("protected", "bytes", 0444);
  EXPECT_EQ(copy("empty", "empty copy"), std::nullopt);
  EXPECT_EQ(copy("protected", "protected copy"), std::nullopt);
  EXPECT_EQ(fileStatus(folder_ / "empty copy").st_size, 0);
  EXPECT_EQ(contentOf(folder_ / "protected copy"), "bytes");
  EXPECT_EQ(fileStatus(folder_ / "protected copy").st_mode & 07777, 0444U);
}

TEST_P(FileCopyContract, CopiesALinkAsALink) {
  fs::create_symlink("nowhere/at all", folder_ / "link");
  EXPECT_EQ(copy("link", "copy"), std::nullopt);
  EXPECT_TRUE(fs::is_symlink(folder_ / "copy"));
  EXPECT_EQ(fs::read_symlink(folder_ / "copy"), "nowhere/at all");
}

TEST_P(FileCopyContract, CopiesAFolderWithItsContent) {
  fs::create_directories(folder_ / "from/inner/empty");
  make("from/first", "one");
  make("from/inner/\xC3\xA4 second", "two", 0600);
  fs::create_symlink("../first", folder_ / "from/inner/link");
  chmod((folder_ / "from/inner").c_str(), 0750);
  age(folder_ / "from/inner/\xC3\xA4 second");
  age(folder_ / "from/inner");
  age(folder_ / "from");
  EXPECT_EQ(copy("from", "to"), std::nullopt);
  EXPECT_EQ(contentOf(folder_ / "to/first"), "one");
  EXPECT_EQ(contentOf(folder_ / "to/inner/\xC3\xA4 second"), "two");
  EXPECT_TRUE(fs::is_directory(folder_ / "to/inner/empty"));
  EXPECT_EQ(fs::read_symlink(folder_ / "to/inner/link"), "../first");
  EXPECT_EQ(fileStatus(folder_ / "to/inner").st_mode & 07777, 0750U);
  for (const char* name : {"to", "to/inner", "to/inner/\xC3\xA4 second"}) {
    EXPECT_EQ(fileStatus(folder_ / name).st_mtime, kOldTime.tv_sec) << name;
  }
}

TEST_P(FileCopyContract, CopiesAReadOnlyFolder) {
  fs::create_directory(folder_ / "from");
  make("from/file", "one");
  chmod((folder_ / "from").c_str(), 0555);
  EXPECT_EQ(copy("from", "to"), std::nullopt);
  EXPECT_EQ(contentOf(folder_ / "to/file"), "one");
  EXPECT_EQ(fileStatus(folder_ / "to").st_mode & 07777, 0555U);
  chmod((folder_ / "from").c_str(), 0755);
  chmod((folder_ / "to").c_str(), 0755);
}

TEST_P(FileCopyContract, AMissingSourceIsRefusedWithItsPath) {
  const auto reason = copy("missing", "to");
  ASSERT_TRUE(reason.has_value());
  EXPECT_NE(reason->find(folder_ / "missing"), std::string::npos) << *reason;
  EXPECT_FALSE(fs::exists(folder_ / "to"));
}

TEST_P(FileCopyContract, AnExistingDestinationIsRefusedAndKept) {
  make("from", "new");
  make("to", "old");
  fs::create_directory(folder_ / "folder");
  fs::create_symlink("nowhere", folder_ / "link");
  for (const char* taken : {"to", "folder", "link"}) EXPECT_TRUE(copy("from", taken).has_value()) << taken;
  EXPECT_EQ(contentOf(folder_ / "to"), "old");
  EXPECT_TRUE(fs::is_empty(folder_ / "folder"));
  EXPECT_FALSE(fs::exists(folder_ / "nowhere"));
}

TEST_P(FileCopyContract, ADestinationWithoutItsFolderIsRefused) {
  make("from", "new");
  EXPECT_TRUE(copy("from", "missing/to").has_value());
  EXPECT_FALSE(fs::exists(folder_ / "missing"));
}

TEST_P(FileCopyContract, AFolderIsNotCopiedIntoItself) {
  fs::create_directories(folder_ / "from/inner");
  fs::create_directory_symlink("from/inner", folder_ / "way in");
  EXPECT_TRUE(copy("from", "from/copy").has_value());
  EXPECT_TRUE(copy("from", "from/inner/copy").has_value());
  EXPECT_TRUE(copy("from", "way in/copy").has_value());
  EXPECT_FALSE(fs::exists(folder_ / "from/copy"));
  EXPECT_TRUE(fs::is_empty(folder_ / "from/inner"));
  EXPECT_EQ(copy("from", "from beside"), std::nullopt) << "a name with the same prefix is not inside the folder";
}

TEST_P(FileCopyContract, CopiesMadeBeforeAFailureRemain) {
  if (geteuid() == 0) GTEST_SKIP() << "the super-user can read every file";
  fs::create_directory(folder_ / "from");
  make("from/a", "one");
  make("from/b", "two", 0000);
  const auto reason = copy("from", "to");
  ASSERT_TRUE(reason.has_value());
  EXPECT_NE(reason->find("from/b"), std::string::npos) << *reason;
  EXPECT_EQ(contentOf(folder_ / "to/a"), "one");
}

TEST_P(FileCopyContract, AnItemOfAnotherKindEndsTheCopyWithoutBlocking) {
  fs::create_directory(folder_ / "from");
  make("from/a", "one");
  ASSERT_EQ(mkfifo((folder_ / "from/b").c_str(), 0600), 0);
  const auto reason = copy("from", "to");
  ASSERT_TRUE(reason.has_value());
  EXPECT_NE(reason->find("from/b"), std::string::npos) << *reason;
  EXPECT_EQ(contentOf(folder_ / "to/a"), "one");
}

TEST_P(FileCopyContract, LeavesNothingOpen) {
  fs::create_directories(folder_ / "from/inner");
  make("from/inner/file", "one");
  const auto before = openDescriptors();
  EXPECT_EQ(copy("from", "to"), std::nullopt);
  EXPECT_TRUE(copy("from", "to").has_value());
  EXPECT_TRUE(copy("missing", "to").has_value());
  EXPECT_EQ(openDescriptors(), before);
}

std::string copierName(const testing::TestParamInfo<std::string>& copier) {
  return copier.param;
}

INSTANTIATE_TEST_SUITE_P(Machines, FileCopyContract, testing::Values("Native", "Simulated"), copierName);

TEST(SimulatedFileCopy, FailsWithTheReasonThatWasSet) {
  TemporaryFolder folder;
  std::ofstream(folder / "from") << "one";
  SimulatedMachine machine;
  machine.failCopy(folder / "from", "the medium is full");
  EXPECT_EQ(machine.platform().fileCopy->copyItem(folder / "from", folder / "to"), "the medium is full");
  EXPECT_FALSE(fs::exists(folder / "to"));
}

}  // namespace
}  // namespace vorlix::contract
