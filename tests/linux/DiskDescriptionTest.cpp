// SPDX-License-Identifier: Apache-2.0
//
// Descriptions of image files by disk arbitration, compared with the output of general tools, and the helpers behind
// them.
#include <Vorlix/foundation/Utf8.h>
#include <Vorlix/platform/SystemError.h>
#include "platform/linux/DeviceFacts.h"
#include "platform/linux/MountFolders.h"
#include "platform/linux/VolumeProbe.h"
#include "tests/contract/Volumes.h"

namespace vorlix::contract {
namespace {

namespace fs = std::filesystem;

class DescribedImage : public testing::Test {
 protected:
  void SetUp() override {
    const std::string missing = missingTool({"sgdisk", "sfdisk", "mkfs.vfat", "mcopy", "mkntfs"});
    if (!missing.empty()) GTEST_SKIP() << missing;
  }

  /// Returns the identifier of slice 1 as printed by sgdisk.
  std::string identifierBySgdisk() const {
    return shell("sgdisk -i 1 '" + image_ + "' | sed -n 's/^Partition unique GUID: //p'");
  }

  TemporaryFolder folder_;
  const std::string image_ = folder_ / "mac.img";
  const Platform ports_ = nativePlatform();
};

TEST_F(DescribedImage, ASliceOfAGPTMatchesTheToolsOutput) {
  makeFATImage(image_, 16, 16);
  const auto slice = describe(ports_, image_ + "s1");
  ASSERT_TRUE(slice.has_value());
  EXPECT_EQ(slice->text(kDescriptionMediaBSDName), image_ + "s1");
  EXPECT_EQ(slice->uuid(kDescriptionMediaUUID), UUID::fromText(identifierBySgdisk()));
  EXPECT_TRUE(slice->contains(kDescriptionMediaUUID));
  EXPECT_EQ(slice->text(kDescriptionMediaContent), "C12A7328-F81F-11D2-BA4B-00A0C93EC93B");
  EXPECT_EQ(slice->text(kDescriptionMediaName), "EFI system");
  EXPECT_EQ(slice->integer(kDescriptionMediaSize), 16 << 20);
  EXPECT_EQ(slice->integer(kDescriptionMediaBlockSize), 512);
  EXPECT_EQ(slice->boolean(kDescriptionMediaWhole), false);
  EXPECT_EQ(slice->boolean(kDescriptionMediaWritable), true);
  EXPECT_EQ(slice->boolean(kDescriptionMediaRemovable), true);
  EXPECT_EQ(slice->boolean(kDescriptionMediaEjectable), true);
  EXPECT_EQ(slice->boolean(kDescriptionDeviceInternal), false);
  EXPECT_EQ(slice->text(kDescriptionVolumeKind), "msdos");
  EXPECT_EQ(slice->text(kDescriptionVolumeName), "MAC EFI");
  EXPECT_EQ(slice->boolean(kDescriptionVolumeMountable), true);
  EXPECT_FALSE(slice->contains(kDescriptionVolumePath));
  ASSERT_TRUE(slice->text(kDescriptionMediaPath).has_value());
  EXPECT_EQ(slice->text(kDescriptionMediaPath)->rfind("IOService:/", 0), 0U);
  EXPECT_TRUE(slice->text(kDescriptionMediaPath)->ends_with("/Disk Image Media/IOGUIDPartitionScheme/Untitled 1@1"));
  EXPECT_TRUE(slice->text(kDescriptionDevicePath)->ends_with("/Disk Image@mac.img"));
}

TEST_F(DescribedImage, AWholeDiskIsDescribed) {
  makeFATImage(image_, 16, 16);
  const auto disk = describe(ports_, image_);
  ASSERT_TRUE(disk.has_value());
  EXPECT_EQ(disk->text(kDescriptionMediaBSDName), image_);
  EXPECT_EQ(disk->text(kDescriptionMediaContent), "GUID_partition_scheme");
  EXPECT_EQ(disk->integer(kDescriptionMediaSize), static_cast<int64_t>(fs::file_size(image_)));
  EXPECT_EQ(disk->boolean(kDescriptionMediaWhole), true);
  EXPECT_EQ(disk->boolean(kDescriptionVolumeMountable), false);
  EXPECT_FALSE(disk->contains(kDescriptionVolumeKind));
  EXPECT_FALSE(disk->contains(kDescriptionMediaUUID));
  const auto slice = describe(ports_, image_ + "s1");
  EXPECT_EQ(disk->text(kDescriptionDevicePath), slice->text(kDescriptionDevicePath));
}

TEST_F(DescribedImage, ASliceOfAnMBRHasATypeAndNoIdentifier) {
  writeImage(image_, {}, 32 << 20);
  shell("echo 'start=2048, size=16384, type=7' | sfdisk -q '" + image_ + "'");
  const auto slice = describe(ports_, image_ + "s1");
  ASSERT_TRUE(slice.has_value());
  EXPECT_EQ(slice->text(kDescriptionMediaContent), "0x07");
  EXPECT_FALSE(slice->contains(kDescriptionMediaUUID));
  EXPECT_FALSE(slice->contains(kDescriptionVolumeKind));
  EXPECT_EQ(describe(ports_, image_)->text(kDescriptionMediaContent), "FDisk_partition_scheme");
}

TEST_F(DescribedImage, AnNTFSVolumeHasASerialNumberAndNoUUID) {
  writeImage(image_, {}, 16 << 20);
  shell("mkntfs -F -q -L 'Windows \xC3\xA9' '" + image_ + "'");
  const auto disk = describe(ports_, image_);
  EXPECT_EQ(disk->text(kDescriptionVolumeKind), "ntfs");
  EXPECT_EQ(disk->text(kDescriptionVolumeName), "Windows \xC3\xA9");
  EXPECT_FALSE(disk->contains(kDescriptionVolumeUUID));
}

TEST_F(DescribedImage, AnExFATVolumeIsRecognized) {
  const std::string missing = missingTool({"mkfs.exfat"});
  if (!missing.empty()) GTEST_SKIP() << missing;
  writeImage(image_, {}, 16 << 20);
  shell("mkfs.exfat -L Stick '" + image_ + "'");
  const auto disk = describe(ports_, image_);
  EXPECT_EQ(disk->text(kDescriptionVolumeKind), "exfat");
  EXPECT_EQ(disk->text(kDescriptionVolumeType), "exfat");
  EXPECT_EQ(disk->text(kDescriptionVolumeName), "Stick");
}

TEST(KernelNames, HaveTheirUnits) {
  EXPECT_EQ(unitOfKernelName("sda"), 0);
  EXPECT_EQ(unitOfKernelName("sdz"), 25);
  EXPECT_EQ(unitOfKernelName("sdaa"), 26);
  EXPECT_EQ(unitOfKernelName("vdb"), 1);
  EXPECT_EQ(unitOfKernelName("nvme2n1"), 2);
  EXPECT_EQ(unitOfKernelName("loop17"), 17);
  EXPECT_EQ(unitOfKernelName("mmcblk0"), 0);
  EXPECT_EQ(unitOfKernelName("sd"), std::nullopt);
  EXPECT_EQ(unitOfKernelName("sdA"), std::nullopt);
  EXPECT_EQ(unitOfKernelName(""), std::nullopt);
  EXPECT_EQ(unitOfKernelName("sd" + std::string(1000, 'z')), std::nullopt);
}

TEST(VolumeKinds, AreTheNativeNames) {
  EXPECT_EQ(volumeKindOf("vfat"), "msdos");
  EXPECT_EQ(volumeKindOf("ntfs"), "ntfs");
  EXPECT_EQ(volumeKindOf("ntfs3"), "ntfs");
  EXPECT_EQ(volumeKindOf("exfat"), "exfat");
  EXPECT_EQ(volumeKindOf("hfsplus"), "hfs");
  EXPECT_EQ(volumeKindOf("hfs"), "hfs");
  EXPECT_EQ(volumeKindOf("apfs"), "apfs");
  EXPECT_EQ(volumeKindOf("ext4"), "ext4");
  EXPECT_EQ(volumeKindOf("fuseblk"), std::nullopt);
}

TEST(UdevRecords, DescribeVolumesThatCannotBeRead) {
  const auto volume = volumeInUdevRecord({{"ID_FS_TYPE", "hfsplus"},
                                          {"ID_FS_USAGE", "filesystem"},
                                          {"ID_FS_LABEL_ENC", "Macintosh\\x20HD \\x5c \\xc3\\xa9"},
                                          {"ID_FS_UUID", "01234567-89ab-cdef-0123-456789abcdef"}});
  ASSERT_TRUE(volume.has_value());
  EXPECT_EQ(volume->kind, "hfs");
  EXPECT_EQ(volume->label, "Macintosh HD \\ \xC3\xA9");
  EXPECT_EQ(volume->uuid, UUID::fromText("01234567-89AB-CDEF-0123-456789ABCDEF"));
  EXPECT_FALSE(volumeInUdevRecord({{"ID_FS_TYPE", "swap"}, {"ID_FS_USAGE", "other"}}));
  EXPECT_FALSE(volumeInUdevRecord({}));
  const auto serial = volumeInUdevRecord({{"ID_FS_TYPE", "vfat"},
                                          {"ID_FS_USAGE", "filesystem"},
                                          {"ID_FS_UUID", "1234-ABCD"},
                                          {"ID_FS_LABEL_ENC", "a\\x4"}});
  ASSERT_TRUE(serial.has_value());
  EXPECT_FALSE(serial->uuid);
  EXPECT_EQ(serial->label, "a\\x4");
}

TEST(Texts, ThatAreNotUTF8AreRepaired) {
  const std::string replacement = "\xEF\xBF\xBD";
  EXPECT_EQ(repairedUtf8("plain \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"),
            "plain \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
  EXPECT_EQ(repairedUtf8("\x82t\x82"), replacement + "t" + replacement);
  EXPECT_EQ(repairedUtf8("\xC0\x80"), replacement + replacement);                    // overlong
  EXPECT_EQ(repairedUtf8("\xED\xA0\x80"), replacement + replacement + replacement);  // a surrogate
  EXPECT_EQ(repairedUtf8("cut \xE2\x82"), "cut " + replacement + replacement);
}

TEST(FolderNames, AreSafe) {
  EXPECT_EQ(safeFolderName("MAC EFI"), "MAC EFI");
  EXPECT_EQ(safeFolderName("../../etc"), "_._.._etc");
  EXPECT_EQ(safeFolderName(".mirrors"), "_mirrors");
  EXPECT_EQ(safeFolderName("a\nb\x7F"), "a_b_");
  EXPECT_EQ(safeFolderName("   "), "");
  EXPECT_EQ(safeFolderName(""), "");
  EXPECT_LE(safeFolderName(std::string(500, 'x')).size(), 128U);
  std::string accents;
  for (int i = 0; i < 100; ++i) accents += "\xC3\xA9";
  EXPECT_EQ(safeFolderName("x" + accents).size(), 127U) << "no character may be split";
}

TEST(ErrorNumbers, HaveTheirPublishedCodes) {
  EXPECT_EQ((SystemError{EBUSY}.status()), static_cast<int32_t>(0xF8DA0002));
  EXPECT_EQ((SystemError{EINVAL}.status()), static_cast<int32_t>(0xF8DA0003));
  EXPECT_EQ((SystemError{ENOSPC}.status()), static_cast<int32_t>(0xF8DA0005));
  EXPECT_EQ((SystemError{ENOENT}.status()), static_cast<int32_t>(0xF8DA0006));
  EXPECT_EQ((SystemError{EPERM}.status()), static_cast<int32_t>(0xF8DA0009));
  EXPECT_EQ((SystemError{EROFS}.status()), static_cast<int32_t>(0xF8DA000B));
  EXPECT_EQ((SystemError{ENODEV}.status()), static_cast<int32_t>(0xF8DA000C));
  EXPECT_EQ((SystemError{EIO}.status()), static_cast<int32_t>(0xF8DA0001));
  EXPECT_EQ(dissenterFor(EBUSY, "/dev/sda1").text, "/dev/sda1: Device or resource busy");
}

}  // namespace
}  // namespace vorlix::contract
