// SPDX-License-Identifier: Apache-2.0
//
// The contracts of the small ports (paths, the user's locale, files in place), and a set that lacks ports.
#include <Vorlix/platform/FilesInPlace.h>
#include <Vorlix/platform/SystemPaths.h>
#include <Vorlix/platform/UserLocale.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace vorlix::contract {
namespace {

TEST(SystemPathsContract, NativeAndSimulatedPathsAreThoseThatHostsRelyOn) {
  for (const Platform& ports : {nativePlatform(), SimulatedMachine().platform()}) {
    EXPECT_EQ(ports.systemPaths->logFile(), "/tmp/quandrel.log");
    EXPECT_EQ(ports.systemPaths->statusTool(), "/usr/bin/csrutil");
  }
}

TEST(SystemPathsContract, ATestCanReplaceThePaths) {
  SimulatedMachine machine;
  machine.setLogFile("/here/log");
  machine.setStatusTool("/here/tool");
  EXPECT_EQ(machine.platform().systemPaths->logFile(), "/here/log");
  EXPECT_EQ(machine.platform().systemPaths->statusTool(), "/here/tool");
}

TEST(UserLocaleContract, TheDecimalSeparatorIsTheUsersAndCanBeReplaced) {
  EXPECT_FALSE(nativePlatform().userLocale->decimalSeparator().empty());
  SimulatedMachine machine;
  EXPECT_EQ(machine.platform().userLocale->decimalSeparator(), nativePlatform().userLocale->decimalSeparator());
  machine.setDecimalSeparator("\xD9\xAB");
  EXPECT_EQ(machine.platform().userLocale->decimalSeparator(), "\xD9\xAB");
}

class FilesInPlaceContract : public testing::Test {
 protected:
  FilesInPlaceContract() : folder_(testing::TempDir() + "vorlixXXXXXX") {
    if (mkdtemp(folder_.data()) == nullptr) throw std::runtime_error("no temporary folder: " + folder_);
  }
  ~FilesInPlaceContract() override {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  std::string make(const std::string& name, const std::string& contents) const {
    std::ofstream(folder_ + "/" + name) << contents;
    return folder_ + "/" + name;
  }
  static std::string read(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  std::string folder_;
  const std::shared_ptr<FilesInPlace> files_ = nativePlatform().filesInPlace;
};

TEST_F(FilesInPlaceContract, SyncsAFileAndItsFileSystem) {
  const int file = open(make("file", "text").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(file, 0);
  EXPECT_EQ(files_->sync(file), 0);
  files_->forgetCached(file, 0, 4);
  EXPECT_EQ(files_->syncFileSystem(file), 0);
  char bytes[4] = {};
  EXPECT_EQ(pread(file, bytes, sizeof bytes, 0), 4);
  EXPECT_EQ(std::string(bytes, 4), "text");
  close(file);
  errno = 0;
  EXPECT_EQ(files_->sync(file), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(FilesInPlaceContract, RenamesOnlyToAFreeName) {
  const std::string from = make("from", "new");
  const std::string taken = make("taken", "old");
  if (files_->renameToFreeName(from.c_str(), (folder_ + "/free").c_str()) != 0) {
    GTEST_SKIP() << "the file system does not support this call: " << errno;
  }
  EXPECT_EQ(read(folder_ + "/free"), "new");
  EXPECT_EQ(files_->renameToFreeName((folder_ + "/free").c_str(), taken.c_str()), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(read(taken), "old");
  EXPECT_EQ(read(folder_ + "/free"), "new");
}

TEST(PlatformTest, AMissingPortIsReplacedByTheNativeOne) {
  SimulatedMachine machine;
  Platform older = machine.platform();
  older.files = nullptr;
  older.pauses = nullptr;
  const ScopedPlatform scope(older);
  ASSERT_TRUE(platform().files);
  ASSERT_TRUE(platform().pauses);
  EXPECT_EQ(platform().deviceFile, older.deviceFile);
  EXPECT_EQ(platform().systemPaths, older.systemPaths);
}

}  // namespace
}  // namespace vorlix::contract
