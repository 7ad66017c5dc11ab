// SPDX-License-Identifier: Apache-2.0
//
// Disk-image files in the registry. General tools make and read them. No privilege is needed.
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "CapturedTree.h"
#include "Commands.h"
#include "platform/linux/DeviceNames.h"
#include "platform/linux/IORegistry.h"
#include "platform/linux/ImageFiles.h"
#include "tests/contract/IORegistryContract.h"

namespace vorlix::test {
namespace {

struct ImageMachine {
  TemporaryFolder folder;
  TemporaryFolder root;
};

RegistryMachine imageMachine() {
  const auto keeper = std::make_shared<ImageMachine>();
  const std::string image = keeper->folder.path() / "mac.img";
  makeMacImage(image);
  EXPECT_TRUE(locateDevice(image));  // walks list only images that were named
  return {keeper,      std::make_shared<LinuxIORegistry>(keeper->root.path()),
          image,       image + "s3",
          3,           "00112233-4455-6677-8899-AABBCCDDEEFF",
          20520 * 512, "3F2504E0-4F89-41D3-9A0C-0305E82C3301"};
}

INSTANTIATE_TEST_SUITE_P(Image, IORegistryContract, testing::Values(RegistryCase{"GPT", imageMachine}), caseName);

class ImageRegistryTest : public testing::Test {
 protected:
  ImageRegistryTest() : image_(folder_.path() / "disk.img"), registry_(empty_.path()) {}

  std::shared_ptr<RegistryEntry> only(const std::string& bsdName) {
    const Entries entries = named(registry_, bsdName);
    EXPECT_EQ(entries.size(), 1U) << bsdName;
    return entries.empty() ? nullptr : entries.front();
  }

  Dictionary propertiesNamed(const std::string& bsdName) {
    const auto entry = only(bsdName);
    return entry == nullptr ? Dictionary() : propertiesOf(*entry);
  }

  Dictionary propertiesAbove(const std::string& bsdName) {
    std::shared_ptr<RegistryEntry> parent;
    EXPECT_EQ(only(bsdName)->parent(kServicePlane, parent), kKernSuccess);
    return propertiesOf(*parent);
  }

  std::vector<std::string> walkedNames() { return bsdNamesOf(walked(registry_, kServicePlane)); }

  TemporaryFolder folder_;
  TemporaryFolder empty_;  // a machine without disks
  std::string image_;
  LinuxIORegistry registry_;
};

TEST_F(ImageRegistryTest, GPTSlicesMatchTheToolsOutput) {
  makeMacImage(image_);
  const std::string signature = run("blkid -p -o value -s PTUUID '" + image_ + "'");
  EXPECT_EQ(propertiesAbove(image_ + "s1").text("UUID"), UUID::fromText(signature)->text());
  EXPECT_FALSE(propertiesNamed(image_).contains("UUID"));
  EXPECT_EQ(propertiesNamed(image_).text("Content"), "GUID_partition_scheme");
  for (const int number : {1, 3}) {
    const std::string told = run("sgdisk -i " + std::to_string(number) + " '" + image_ + "'");
    const Dictionary slice = propertiesNamed(image_ + "s" + std::to_string(number));
    EXPECT_EQ(slice.text("UUID"), capture(told, "unique GUID: ([0-9A-F-]+)"));
    EXPECT_EQ(slice.text("Content Hint"), capture(told, "GUID code: ([0-9A-F-]+)"));
    EXPECT_EQ(slice.integer("Base"), std::stoll(capture(told, "First sector: (\\d+)")) * 512);
    EXPECT_EQ(slice.integer("Size"), std::stoll(capture(told, "Partition size: (\\d+)")) * 512);
    EXPECT_EQ(slice.integer("Partition ID"), number);
  }
  EXPECT_TRUE(named(registry_, image_ + "s2").empty());
}

TEST_F(ImageRegistryTest, MBRSlicesHaveNoIdentifiersAndLogicalOnesStartAtFive) {
  run("truncate -s 64M '" + image_ + "'");
  run("printf 'label: dos\\nstart=2048,size=4096,type=c\\nstart=8192,size=65536,type=f\\n"
      "start=10240,size=4096,type=7\\n' | sfdisk -q '" +
      image_ + "'");
  const std::string dump = run("sfdisk -d '" + image_ + "'");
  EXPECT_EQ(propertiesNamed(image_).text("Content"), "FDisk_partition_scheme");
  EXPECT_FALSE(propertiesNamed(image_).contains("UUID"));
  EXPECT_FALSE(propertiesAbove(image_ + "s1").contains("UUID"));
  for (const auto& [number, content] : {std::pair{1, "0x0C"}, std::pair{2, "0x0F"}, std::pair{5, "0x07"}}) {
    const Dictionary slice = propertiesNamed(image_ + "s" + std::to_string(number));
    const std::string line = capture(dump, "img" + std::to_string(number) + " : (.*)");
    EXPECT_EQ(slice.integer("Base"), std::stoll(capture(line, "start= *(\\d+)")) * 512);
    EXPECT_EQ(slice.text("Content"), content);
    EXPECT_FALSE(slice.contains("UUID"));
  }
}

TEST_F(ImageRegistryTest, AHybridMBRDoesNotHideTheGPT) {
  makeMacImage(image_);
  run("sgdisk -h 3 '" + image_ + "' >/dev/null");
  EXPECT_EQ(propertiesNamed(image_ + "s3").text("UUID"), "00112233-4455-6677-8899-AABBCCDDEEFF");
}

TEST_F(ImageRegistryTest, AGPTCountsWithoutAProtectiveMBRToo) {
  makeMacImage(image_);
  run("dd if=/dev/zero of='" + image_ + "' bs=512 count=1 conv=notrunc status=none");
  EXPECT_EQ(propertiesNamed(image_ + "s3").text("UUID"), "00112233-4455-6677-8899-AABBCCDDEEFF");
}

TEST_F(ImageRegistryTest, ADamagedGPTHasSlicesWithoutIdentifiers) {
  makeMacImage(image_);
  // Byte 60 of both headers is part of the disk GUID, which their checksums cover.
  run("printf X | dd of='" + image_ + "' bs=1 seek=572 conv=notrunc status=none");
  run("printf X | dd of='" + image_ + "' bs=1 seek=" + std::to_string((64 << 20) - 512 + 60) +
      " conv=notrunc status=none");
  EXPECT_FALSE(propertiesAbove(image_ + "s3").contains("UUID"));
  EXPECT_EQ(pathOf(*only(image_ + "s3"), kServicePlane),
            "IOService:/Machine/Disk Image@disk.img/Disk Image Media/IOGUIDPartitionScheme/Untitled 3@3");
  const Dictionary slice = propertiesNamed(image_ + "s3");
  EXPECT_EQ(slice.integer("Base"), 20520 * 512);
  EXPECT_EQ(slice.integer("Size"), 40960 * 512);
  EXPECT_FALSE(slice.contains("UUID"));
}

TEST_F(ImageRegistryTest, ATableInsideASliceIsIgnored) {
  makeMacImage(image_);
  run("truncate -s 8M '" + image_ + ".inner'");
  run("printf 'label: dos\\nstart=64,size=64,type=7\\n' | sfdisk -q '" + image_ + ".inner'");
  run("dd if='" + image_ + ".inner' of='" + image_ + "' bs=512 seek=20520 conv=notrunc status=none");
  ASSERT_TRUE(locateDevice(image_));
  EXPECT_THAT(walkedNames(), testing::IsSupersetOf({image_, image_ + "s1", image_ + "s3"}));
  EXPECT_THAT(walkedNames(), testing::Not(testing::Contains(image_ + "s4")));
}

TEST_F(ImageRegistryTest, AFileWithoutATableIsADiskWithoutSlices) {
  run("truncate -s 8M '" + image_ + "'");
  const Dictionary disk = propertiesNamed(image_);
  EXPECT_EQ(disk.text("BSD Name"), image_);
  EXPECT_EQ(disk.text("Content"), "");
  EXPECT_EQ(disk.integer("Size"), 8 << 20);
  EXPECT_EQ(disk.boolean("Writable"), true);
  EXPECT_TRUE(named(registry_, image_ + "s1").empty());
}

TEST_F(ImageRegistryTest, AVolumesBootSectorIsNotATable) {
  run("truncate -s 8M '" + image_ + "'");
  run("mformat -i '" + image_ + "' -v TEST ::");
  EXPECT_TRUE(named(registry_, image_ + "s1").empty());
}

TEST_F(ImageRegistryTest, AnEmptyFileIsADiskOfSizeZero) {
  run(": > '" + image_ + "'");
  EXPECT_EQ(propertiesNamed(image_).integer("Size"), 0);
  EXPECT_TRUE(named(registry_, image_ + "s1").empty());
}

TEST_F(ImageRegistryTest, OtherFormsOfTheNameFindTheAbsolutePath) {
  makeMacImage(image_);
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder_.path());
  EXPECT_EQ(propertiesNamed("disk.imgs3").text("BSD Name"), image_ + "s3");
  EXPECT_EQ(propertiesNamed("./disk.img").text("BSD Name"), image_);
  std::filesystem::current_path(before);
  EXPECT_EQ(propertiesNamed("/dev/" + image_ + "s3").text("BSD Name"), image_ + "s3");
}

TEST_F(ImageRegistryTest, OnlyRegularFilesMatch) {
  EXPECT_TRUE(named(registry_, image_).empty());
  EXPECT_TRUE(named(registry_, folder_.path()).empty());
  EXPECT_TRUE(named(registry_, "/dev/null").empty());
  EXPECT_TRUE(named(registry_, "/").empty());
}

TEST_F(ImageRegistryTest, AWalkListsAnImageOnceItWasNamedAndOmitsDeletedOnes) {
  makeMacImage(image_);
  EXPECT_THAT(walkedNames(), testing::Not(testing::Contains(image_)));
  EXPECT_TRUE(locateDevice(image_ + "s1"));
  EXPECT_TRUE(locateDevice(image_));
  const std::vector<std::string> names = walkedNames();
  EXPECT_EQ(std::count(names.begin(), names.end(), image_), 1);
  EXPECT_EQ(std::count(names.begin(), names.end(), image_ + "s3"), 1);
  std::filesystem::remove(image_);
  EXPECT_THAT(walkedNames(), testing::Not(testing::Contains(testing::StartsWith(image_))));
}

TEST_F(ImageRegistryTest, OnlyTheLastImagesAreRemembered) {
  for (int i = 0; i < 70; ++i) noteImageFile("/images/" + std::to_string(i));
  noteImageFile("/images/10");
  const std::vector<std::string> names = namedImageFiles();
  EXPECT_EQ(names.size(), 64U);
  EXPECT_EQ(names.front(), "/images/6");
  EXPECT_EQ(names.back(), "/images/10");
  EXPECT_EQ(std::count(names.begin(), names.end(), "/images/10"), 1);
}

TEST_F(ImageRegistryTest, AnImagesNameIsAbsoluteAndKeepsItsLinks) {
  EXPECT_EQ(imageBSDName("mac.img"), (std::filesystem::current_path() / "mac.img").string());
  EXPECT_EQ(imageBSDName("./a//b/./mac.img"), (std::filesystem::current_path() / "a/b/mac.img").string());
  EXPECT_EQ(imageBSDName("/a/link/../mac.img"), "/a/link/../mac.img");
}

TEST_F(ImageRegistryTest, TheMediumIsThatOfTheDiskThatHoldsTheFile) {
  makeMacImage(image_);
  struct stat status = {};
  ASSERT_EQ(stat(image_.c_str(), &status), 0);
  const std::string number = std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev));
  CapturedTree tree("sata");
  tree.add("[sys/dev/block]\n" + number + " -> ../../block/sda/sda3\n");  // on a slice of the solid-state disk
  LinuxIORegistry registry(tree.root());
  const Entries wholes = named(registry, image_);
  ASSERT_EQ(wholes.size(), 1U);
  std::shared_ptr<RegistryEntry> device;
  ASSERT_EQ(wholes[0]->parent(kServicePlane, device), kKernSuccess);
  const auto characteristics = propertiesOf(*device).dictionary("Device Characteristics");
  ASSERT_NE(characteristics, nullptr);
  EXPECT_EQ(characteristics->text("Medium Type"), "Solid State");
  EXPECT_EQ(pathOf(*wholes[0], kServicePlane), "IOService:/MacBookPro11,1/Disk Image@disk.img/Disk Image Media");
}

TEST_F(ImageRegistryTest, AnUnknownMediumIsAbsent) {
  makeMacImage(image_);
  std::shared_ptr<RegistryEntry> device;
  ASSERT_EQ(only(image_)->parent(kServicePlane, device), kKernSuccess);
  const auto characteristics = propertiesOf(*device).dictionary("Device Characteristics");
  EXPECT_TRUE(characteristics == nullptr || !characteristics->contains("Medium Type"));
}

TEST_F(ImageRegistryTest, LookUpsLeaveNothingOpenAndChangeNothing) {
  makeMacImage(image_);
  const auto openFiles = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  const std::string before = run("sha256sum '" + image_ + "'");
  const auto count = openFiles();
  named(registry_, image_ + "s3");
  walked(registry_, kServicePlane);
  EXPECT_EQ(openFiles(), count);
  EXPECT_EQ(run("sha256sum '" + image_ + "'"), before);
}

}  // namespace
}  // namespace vorlix::test
