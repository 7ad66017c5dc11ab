// SPDX-License-Identifier: Apache-2.0
//
// Look-ups by the flat functions of images that this process has not named before, by all forms of their names.
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <Vorlix/platform/simulated/SimulatedSystemPaths.h>
#include <unistd.h>

#include <array>
#include <filesystem>

#include "Commands.h"
#include "platform/linux/DeviceNames.h"

namespace vorlix::test {
namespace {

namespace fs = std::filesystem;

using GUID = std::array<uint8_t, 16>;

// 3F2504E0-4F89-41D3-9A0C-0305E82C3301 and 00112233-4455-6677-8899-AABBCCDDEEFF as stored on disk.
constexpr GUID kDisk = {0xE0, 0x04, 0x25, 0x3F, 0x89, 0x4F, 0xD3, 0x41, 0x9A, 0x0C, 0x03, 0x05, 0xE8, 0x2C, 0x33, 0x01};
constexpr GUID kSlice = {0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66,
                         0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};

class ImageLookUps : public testing::Test {
 protected:
  ImageLookUps() : image_(folder_.path() / "mac.img") { makeMacImage(image_); }
  ~ImageLookUps() override { fs::current_path(before_); }

  static void expectSlice(const std::string& name) {
    EXPECT_EQ(partitionForDeviceIdentifier(name.c_str()), 3) << name;
    GUID disk = {};
    GUID partition = {};
    int64_t offset = -1;
    EXPECT_EQ(lookup_disk_info(name.c_str(), disk.data(), partition.data(), &offset), 0) << name;
    EXPECT_EQ(disk, kDisk) << name;
    EXPECT_EQ(partition, kSlice) << name;
    EXPECT_EQ(offset, 20520 * 512) << name;
  }

  static Platform nativeLoggingTo(const std::string& path) {
    const auto paths = std::make_shared<SimulatedSystemPaths>();
    paths->setLogFile(path);
    Platform ports = nativePlatform();
    ports.systemPaths = paths;
    return ports;
  }

  TemporaryFolder folder_;
  const ScopedPlatform scope_{nativeLoggingTo(folder_.path() / "log")};
  const fs::path before_ = fs::current_path();
  std::string image_;
};

TEST_F(ImageLookUps, TheNumberOfASliceIsFoundWithoutAnEarlierLookUp) {
  EXPECT_EQ(partitionForDeviceIdentifier((image_ + "s3").c_str()), 3);
  EXPECT_EQ(partitionForDeviceIdentifier((image_ + "s2").c_str()), 0);
  EXPECT_EQ(partitionForDeviceIdentifier(image_.c_str()), 0) << "this is a whole disk";
  EXPECT_EQ(partitionForDeviceIdentifier((folder_.path() / "missing.imgs3").c_str()), 0);
}

TEST_F(ImageLookUps, AnImageIsFoundAfterManyOthers) {
  for (int number = 0; number < 70; ++number) {
    const std::string other = folder_.path() / std::to_string(number);
    run("touch '" + other + "'");
    ASSERT_TRUE(locateDevice(other));
  }
  EXPECT_EQ(partitionForDeviceIdentifier((image_ + "s3").c_str()), 3);
}

TEST_F(ImageLookUps, EveryFormOfTheNameIsFound) {
  fs::current_path(folder_.path());
  for (const std::string& name : {std::string("mac.imgs3"), std::string("./mac.imgs3"), "/dev/" + image_ + "s3"}) {
    expectSlice(name);
  }
}

TEST_F(ImageLookUps, AnImageBelowDevKeepsItsName) {
  if (access("/dev/shm", W_OK) != 0) GTEST_SKIP() << "/dev/shm is not writable";
  const std::string image = "/dev/shm/vorlix " + std::to_string(getpid()) + ".img";
  fs::copy_file(image_, image);
  for (const std::string& name : {image + "s3", "/dev/" + image + "s3"}) expectSlice(name);
  fs::remove(image);
}

TEST_F(ImageLookUps, AWholeDiskHasNoPartitionIdentifier) {
  GUID disk = {};
  GUID partition = {};
  int64_t offset = -1;
  EXPECT_EQ(lookup_disk_info(image_.c_str(), disk.data(), partition.data(), &offset), -1);
  EXPECT_EQ(disk, GUID{});
  EXPECT_EQ(partition, GUID{});
  EXPECT_EQ(offset, -1);
  EXPECT_EQ(run("tail -n 1 '" + (folder_.path() / "log").string() + "'"), "error getting uuid");
}

TEST_F(ImageLookUps, TheMediumTypeOfASliceIsThatOfItsDisk) {
  std::array<char, 1024> whole = {};
  std::array<char, 1024> slice = {};
  const int32_t found = media_type(image_.c_str(), whole.data());
  EXPECT_EQ(media_type((image_ + "s3").c_str(), slice.data()), found);
  EXPECT_STREQ(whole.data(), slice.data());
}

}  // namespace
}  // namespace vorlix::test
