// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <unistd.h>
#include "platform/linux/HostBundle.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

class LinuxHostBundleTest : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(first);
    fs::create_directories(second);
  }
  void TearDown() override { fs::remove_all(folder); }

  static std::string add(const fs::path& path) {
    std::ofstream(path) << "x";
    return path.string();
  }

  fs::path folder = fs::path(testing::TempDir()) / ("bundle." + std::to_string(getpid()));
  fs::path first = folder / "first";
  fs::path second = folder / "second";
  vorlix::LinuxHostBundle bundle{{first, second}};
};

TEST_F(LinuxHostBundleTest, TheTypeIsTheFileExtension) {
  const std::string bare = add(first / "unzip");
  const std::string typed = add(first / "BeforeEFI.plist");
  EXPECT_EQ(bundle.pathForResource("unzip", "", ""), bare);
  EXPECT_EQ(bundle.pathForResource("BeforeEFI", "plist", ""), typed);
  EXPECT_FALSE(bundle.pathForResource("BeforeEFI", "", ""));
  EXPECT_FALSE(bundle.pathForResource("unzip", "plist", ""));
}

TEST_F(LinuxHostBundleTest, TheFirstFolderTakesPrecedence) {
  const std::string later = add(second / "unzip");
  EXPECT_EQ(bundle.pathForResource("unzip", "", ""), later);
  const std::string earlier = add(first / "unzip");
  EXPECT_EQ(bundle.pathForResource("unzip", "", ""), earlier);
}

TEST_F(LinuxHostBundleTest, AFolderIsNotAResource) {
  fs::create_directories(first / "unzip");
  EXPECT_FALSE(bundle.pathForResource("unzip", "", ""));
}

TEST_F(LinuxHostBundleTest, ANameCannotLeaveTheFolder) {
  add(folder / "outside");
  fs::create_directories(first / "below");
  add(first / "below" / "inside");
  for (const char* name : {"../outside", "below/inside", "", ".", ".."}) {
    EXPECT_FALSE(bundle.pathForResource(name, "", "")) << name;
  }
  EXPECT_FALSE(bundle.pathForResource("", "../outside", ""));
  EXPECT_FALSE(bundle.pathForResource("x", "/../../outside", ""));
}

TEST_F(LinuxHostBundleTest, TheDefaultFolderIsThatOfTheExecutable) {
  const fs::path own = fs::read_symlink("/proc/self/exe");
  EXPECT_EQ(vorlix::LinuxHostBundle().pathForResource(own.filename().string(), "", ""), own.string());
}

TEST_F(LinuxHostBundleTest, TheEnvironmentHasNoInfluence) {
  add(first / "unzip-of-another");
  const std::string path = std::getenv("PATH") != nullptr ? std::getenv("PATH") : "";
  setenv("PATH", first.c_str(), 1);
  EXPECT_FALSE(vorlix::LinuxHostBundle().pathForResource("unzip-of-another", "", ""));
  setenv("PATH", path.c_str(), 1);
}

}  // namespace
