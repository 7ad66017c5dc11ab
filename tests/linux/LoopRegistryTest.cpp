// SPDX-License-Identifier: Apache-2.0
//
// Loop devices of this machine in the registry, with slices that the kernel knows and slices that it does not. Needs
// the right to set up loop devices.
#include <unistd.h>

#include "CapturedTree.h"
#include "Commands.h"
#include "platform/linux/IORegistry.h"
#include "tests/contract/RegistryEntries.h"

namespace vorlix::test {
namespace {

class LoopRegistryTest : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only the super-user can set up loop devices";
    makeMacImage(image());
    attach("");
  }

  void attach(const std::string& options) {
    try {
      node_ = run("losetup -f --show " + options + " '" + image() + "' 2>&1");
    } catch (const std::runtime_error& error) {
      GTEST_SKIP() << "no loop device: " << error.what();
    }
    name_ = node_.substr(std::string("/dev/").size());
  }

  void TearDown() override { detach(); }

  void detach() {
    if (node_.empty()) return;
    if (kernelKnowsSlices()) run("partx -d '" + node_ + "'");
    run("losetup -d '" + node_ + "'");
    node_.clear();
  }

  bool kernelKnowsSlices() const { return std::filesystem::exists("/sys/block/" + name_ + "/" + name_ + "p1"); }

  std::string image() const { return folder_.path() / "mac.img"; }

  Dictionary propertiesNamed(const std::string& bsdName) {
    const Entries entries = named(registry_, bsdName);
    EXPECT_EQ(entries.size(), 1U) << bsdName;
    return entries.empty() ? Dictionary() : propertiesOf(*entries[0]);
  }

  TemporaryFolder folder_;
  std::string node_;
  std::string name_;
  LinuxIORegistry registry_;
};

TEST_F(LoopRegistryTest, TheWholeDiskMatchesTheKernelsValues) {
  const Dictionary disk = propertiesNamed(name_);
  EXPECT_EQ(disk.integer("Size"), std::stoll(run("blockdev --getsize64 " + node_)));
  EXPECT_EQ(disk.integer("Preferred Block Size"), std::stoll(run("blockdev --getss " + node_)));
  EXPECT_FALSE(disk.contains("UUID"));
  const Entries schemes = matching(registry_, {"IOGUIDPartitionScheme", std::nullopt, {}});
  const std::string uuid = UUID::fromText(run("blkid -p -o value -s PTUUID " + node_))->text();
  EXPECT_EQ(std::count_if(schemes.begin(), schemes.end(),
                          [&](const auto& scheme) {
                            std::shared_ptr<RegistryEntry> medium;
                            return scheme->parent(kServicePlane, medium) == kKernSuccess &&
                                   textOf(*medium, "BSD Name") == name_ && textOf(*scheme, "UUID") == uuid;
                          }),
            1);
  EXPECT_EQ(disk.text("Content"), "GUID_partition_scheme");
}

TEST_F(LoopRegistryTest, SlicesThatTheKernelDoesNotKnowAreFound) {
  if (kernelKnowsSlices()) GTEST_SKIP() << "the kernel has scanned the device for slices";
  const Dictionary slice = propertiesNamed(name_ + "s3");
  EXPECT_EQ(slice.text("BSD Name"), name_ + "s3");
  EXPECT_EQ(slice.text("UUID"), "00112233-4455-6677-8899-AABBCCDDEEFF");
  EXPECT_EQ(slice.integer("Base"), 20520 * 512);
  EXPECT_TRUE(named(registry_, name_ + "p3").empty());
  EXPECT_THAT(bsdNamesOf(walked(registry_, kDeviceTreePlane)),
              testing::IsSupersetOf({name_, name_ + "s1", name_ + "s3"}));
}

TEST_F(LoopRegistryTest, SlicesThatTheKernelKnowsKeepTheirKernelNames) {
  try {
    if (!kernelKnowsSlices()) run("partx -a '" + node_ + "' 2>&1");
  } catch (const std::runtime_error& error) {
    GTEST_SKIP() << "the kernel accepts no slices: " << error.what();
  }
  ASSERT_TRUE(kernelKnowsSlices());
  const Dictionary slice = propertiesNamed(name_ + "p3");
  EXPECT_EQ(slice.text("BSD Name"), name_ + "p3");
  EXPECT_EQ(slice.integer("Partition ID"), 3);
  EXPECT_EQ(slice.text("UUID"), "00112233-4455-6677-8899-AABBCCDDEEFF");
  EXPECT_EQ(slice.text("Content"), "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7");
  EXPECT_EQ(propertiesNamed(name_ + "s3").text("BSD Name"), name_ + "p3");
  EXPECT_THAT(bsdNamesOf(walked(registry_, kServicePlane)), testing::Not(testing::Contains(name_ + "s3")));
}

TEST_F(LoopRegistryTest, ASliceOfAnOldTableIsNotMistakenForANewOne) {
  try {
    if (!kernelKnowsSlices()) run("partx -a '" + node_ + "' 2>&1");
  } catch (const std::runtime_error& error) {
    GTEST_SKIP() << "the kernel accepts no slices: " << error.what();
  }
  // Change the file, so that the kernel does not notice.
  run("sgdisk -a 1 -d 3 -n 3:61480:65575 -t 3:0700 '" + image() + "' >/dev/null");
  run("blockdev --flushbufs " + node_);
  const Dictionary slice = propertiesNamed(name_ + "p3");
  EXPECT_EQ(slice.integer("Base"), 20520 * 512);
  EXPECT_FALSE(slice.contains("UUID"));
}

TEST_F(LoopRegistryTest, AGPTOf4096ByteBlocksIsReadFromADeviceAndFromItsFile) {
  detach();
  run("rm '" + image() + "'; truncate -s 64M '" + image() + "'");
  attach("--sector-size 4096");
  if (IsSkipped()) return;
  run("sgdisk -o -a 1 -n 1:2048:3071 " + node_ + " >/dev/null");
  const std::string told = run("sgdisk -i 1 " + node_);
  const std::string first = kernelKnowsSlices() ? name_ + "p1" : name_ + "s1";
  for (const std::string& slice : {first, image() + "s1"}) {
    const Dictionary properties = propertiesNamed(slice);
    EXPECT_EQ(properties.integer("Preferred Block Size"), 4096) << slice;
    EXPECT_EQ(properties.integer("Base"), 2048 * 4096) << slice;
    EXPECT_EQ(properties.integer("Size"), 1024 * 4096) << slice;
    EXPECT_EQ(properties.text("UUID"), capture(told, "unique GUID: ([0-9A-F-]+)")) << slice;
  }
}

}  // namespace
}  // namespace vorlix::test
