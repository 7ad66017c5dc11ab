// SPDX-License-Identifier: Apache-2.0
//
// Lines of the kernel's mount table as proc(5) describes them, and odd ones.
#include "platform/linux/MountLines.h"

#include <gmock/gmock.h>
#include <sys/sysmacros.h>

namespace vorlix {
namespace {

using testing::ElementsAre;

TEST(MountLinesTest, TheFieldsOfALine) {
  const auto lines = mountLines(
      "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue\n"
      "27 1 254:16 / / rw,relatime - ext4 /dev/vdb ro\n");
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].id, 36);
  EXPECT_EQ(lines[0].number, makedev(98, 0));
  EXPECT_EQ(lines[0].root, "/mnt1");
  EXPECT_EQ(lines[0].path, "/mnt2");
  EXPECT_EQ(lines[0].mountOptions, "rw,noatime");
  EXPECT_EQ(lines[0].fileSystem, "ext3");
  EXPECT_EQ(lines[0].source, "/dev/root");
  EXPECT_EQ(lines[0].volumeOptions, "rw,errors=continue");
  EXPECT_EQ(lines[1].number, makedev(254, 16));
  EXPECT_EQ(lines[1].path, "/");
  EXPECT_EQ(lines[1].volumeOptions, "ro");
}

TEST(MountLinesTest, ManyPropagationFieldsOrNone) {
  const auto lines = mountLines(
      "1 2 0:1 / /a rw shared:7 master:3 propagate_from:2 unbindable - tmpfs a rw\n"
      "2 2 0:1 / /b rw - tmpfs b rw");
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].source, "a");
  EXPECT_EQ(lines[1].source, "b");
}

TEST(MountLinesTest, EscapesStandForBytes) {
  const auto lines =
      mountLines(R"(1 2 8:1 /a\040b /mnt/tab\011line\012back\134slash rw - fuse.x\040y /img\040of\0409 rw)");
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].root, "/a b");
  EXPECT_EQ(lines[0].path, "/mnt/tab\tline\nback\\slash");
  EXPECT_EQ(lines[0].fileSystem, "fuse.x y");
  EXPECT_EQ(lines[0].source, "/img of 9");
  const auto plain = mountLines(R"(1 2 8:1 / /a\04 rw - ext4 C:\data\9 rw)");
  ASSERT_EQ(plain.size(), 1U);
  EXPECT_EQ(plain[0].path, "/a\\04");
  EXPECT_EQ(plain[0].source, "C:\\data\\9");
}

TEST(MountLinesTest, AnEmptySourceIsAField) {
  const auto lines = mountLines("1 2 0:9 / /mnt rw shared:1 - tmpfs  rw,size=4k\n");
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].source, "");
  EXPECT_EQ(lines[0].volumeOptions, "rw,size=4k");
}

TEST(MountLinesTest, AMountPointThatWasRemovedKeepsItsPath) {
  const auto lines = mountLines("1 2 8:1 / /mnt/gone//deleted rw - ext4 /dev/sda1 rw\n");
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].path, "/mnt/gone");
}

TEST(MountLinesTest, WhatIsNoLineIsLeftOut) {
  EXPECT_TRUE(mountLines("").empty());
  for (const char* const text :
       {"\n\n", "x 2 8:1 / / rw - ext4 a rw\n", "1 2 81 / / rw - ext4 a rw\n", "1 2 8:x / / rw - ext4 a rw\n",
        "1 2 8:1 / / rw\n", "1 2 8:1 / / rw shared:1 -", "1 2 8:1 / / rw shared:1 ext4 a rw\n", "1", "1 2 8:1"}) {
    EXPECT_TRUE(mountLines(text).empty()) << text;
  }
  EXPECT_EQ(mountLines("no line\n1 2 8:1 / /a rw - ext4 a rw\nnor this\n").size(), 1U);
}

TEST(MountLinesTest, OptionsAreFoundByTheirWholeNames) {
  constexpr const char* kOptions = R"(rw,relatime,user_id=1000,subvol=/a\040b=c,x)";
  EXPECT_EQ(mountOption(kOptions, "rw"), "");
  EXPECT_EQ(mountOption(kOptions, "user_id"), "1000");
  EXPECT_EQ(mountOption(kOptions, "subvol"), "/a b=c");
  EXPECT_EQ(mountOption(kOptions, "x"), "");
  for (const char* const absent : {"r", "user", "ro", "1000", "a", ""})
    EXPECT_EQ(mountOption(kOptions, absent), std::nullopt);
  EXPECT_EQ(mountOption("", "rw"), std::nullopt);
}

TEST(MountLinesTest, FileSystemsOnDevicesHaveNoMark) {
  EXPECT_THAT(deviceFileSystems("nodev\tsysfs\nnodev\ttmpfs\n\text4\nnodev\tzfs\n\tbtrfs\n\n\tfuseblk"),
              ElementsAre("ext4", "btrfs", "fuseblk"));
  EXPECT_THAT(deviceFileSystems(""), ElementsAre());
}

}  // namespace
}  // namespace vorlix
