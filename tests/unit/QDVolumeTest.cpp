// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDVolume.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/support/FilledVolume.h"

namespace {

using vorlix::AttributedString;
using vorlix::Number;
using vorlix::UUID;
using Bytes = std::vector<uint8_t>;

// Expects that every string, number, identifier and list is absent. Callers check `mbr`.
void expectObjectsAbsent(const QDVolume& volume) {
  for (const auto& field : volume_test::texts()) EXPECT_FALSE((volume.*field.get)()) << field.name;
  for (const auto& field : volume_test::numbers()) EXPECT_FALSE((volume.*field.get)()) << field.name;
  for (const auto& field : volume_test::uuids()) EXPECT_FALSE((volume.*field.get)()) << field.name;
  EXPECT_EQ(volume.partitionID(), nullptr);
  EXPECT_EQ(volume.info(), nullptr);
  EXPECT_FALSE(volume.usageDescription());
  EXPECT_EQ(volume.wrapperArray(), nullptr);
}

TEST(QDVolumeTest, InitCreatesAnEmptyBufferAndNothingElse) {
  const auto volume = QDVolume::init();
  ASSERT_NE(volume->mbr(), nullptr);
  EXPECT_TRUE(volume->mbr()->empty());
  expectObjectsAbsent(*volume);
  for (const auto& field : volume_test::flags()) EXPECT_FALSE((*volume.*field.get)()) << field.name;
  EXPECT_EQ(volume->filesystemSize(), 0);
}

TEST(QDVolumeTest, EachRecordHasItsOwnBuffer) {
  const auto one = QDVolume::init();
  one->appendMBRData({1});
  EXPECT_TRUE(QDVolume::init()->mbr()->empty());
}

TEST(QDVolumeTest, SupportsSecureCoding) {
  EXPECT_TRUE(QDVolume::supportsSecureCoding());
}

TEST(QDVolumeTest, EveryFieldIsSetAloneAndCanBeReset) {
  const auto volume = QDVolume::init();
  for (const auto& field : volume_test::texts()) {
    (*volume.*field.set)(std::string(field.name));
    for (const auto& other : volume_test::texts()) {
      EXPECT_EQ((*volume.*other.get)().has_value(), &other == &field) << field.name << ' ' << other.name;
    }
    EXPECT_EQ((*volume.*field.get)(), field.name);
    (*volume.*field.set)(std::nullopt);
  }
  for (const auto& field : volume_test::flags()) {
    (*volume.*field.set)(true);
    for (const auto& other : volume_test::flags()) EXPECT_EQ((*volume.*other.get)(), &other == &field) << other.name;
    (*volume.*field.set)(false);
  }
  for (const auto& field : volume_test::numbers()) {
    (*volume.*field.set)(Number::numberWithLongLong(7));
    for (const auto& other : volume_test::numbers()) EXPECT_EQ((*volume.*other.get)().has_value(), &other == &field);
    (*volume.*field.set)(std::nullopt);
  }
  for (const auto& field : volume_test::uuids()) {
    (*volume.*field.set)(UUID());
    for (const auto& other : volume_test::uuids()) EXPECT_EQ((*volume.*other.get)().has_value(), &other == &field);
    (*volume.*field.set)(std::nullopt);
  }
  volume->setFilesystemSize(-1);
  EXPECT_EQ(volume->filesystemSize(), -1);
  volume->setMbr(nullptr);
  expectObjectsAbsent(*volume);
  EXPECT_EQ(volume->mbr(), nullptr);
}

TEST(QDVolumeTest, MutableBuffersTextsAndListsAreShared) {
  const auto volume = QDVolume::init();
  const auto bytes = std::make_shared<Bytes>(Bytes{1});
  const auto identifier = std::make_shared<std::string>("a");
  const auto info = std::make_shared<std::string>("b");
  const auto runners = std::make_shared<std::vector<std::shared_ptr<QDTaskWrapperWithBlocks>>>();
  volume->setMbr(bytes);
  volume->setPartitionID(identifier);
  volume->setInfo(info);
  volume->setWrapperArray(runners);
  EXPECT_EQ(volume->mbr(), bytes);
  EXPECT_EQ(volume->partitionID(), identifier);
  EXPECT_EQ(volume->info(), info);
  EXPECT_EQ(volume->wrapperArray(), runners);
}

TEST(QDVolumeTest, AppendingExtendsTheBufferThatWasSet) {
  const auto volume = QDVolume::init();
  const auto bytes = std::make_shared<Bytes>(Bytes{1});
  volume->setMbr(bytes);
  volume->appendMBRData({2, 3});
  volume->appendMBRData({});
  EXPECT_EQ(*bytes, (Bytes{1, 2, 3}));
}

TEST(QDVolumeTest, ABufferCanBeAppendedToItself) {
  const auto volume = QDVolume::init();
  volume->appendMBRData({1, 2});
  volume->appendMBRData(*volume->mbr());
  EXPECT_EQ(*volume->mbr(), (Bytes{1, 2, 1, 2}));
}

TEST(QDVolumeTest, AppendingToAnAbsentBufferDoesNothing) {
  const auto volume = QDVolume::init();
  volume->setMbr(nullptr);
  volume->appendMBRData({1});
  EXPECT_EQ(volume->mbr(), nullptr);
}

TEST(QDVolumeTest, AppendingCreatesAnAbsentPartitionID) {
  const auto volume = QDVolume::init();
  volume->appendpartitionIDData("ab");
  const auto made = volume->partitionID();
  volume->appendpartitionIDData("c");
  EXPECT_EQ(volume->partitionID(), made);
  EXPECT_EQ(*made, "abc");
}

TEST(QDVolumeTest, AppendingCreatesAnAbsentInfo) {
  const auto volume = QDVolume::init();
  volume->appendInfo("");
  const auto made = volume->info();
  ASSERT_NE(made, nullptr);
  volume->appendInfo("note");
  EXPECT_EQ(volume->info(), made);
  EXPECT_EQ(*made, "note");
}

TEST(QDVolumeTest, ACopyHasOnlyTheFieldsThatCopyingKeeps) {
  const auto volume = volume_test::filled();
  const auto copy = volume->copyWithZone();
  ASSERT_NE(copy, volume);
  const std::vector<std::string> lost = {
      "mediaSize",  "installedOS",          "networkShare", "bootResourcePath",   "bootMgrPath",
      "hasWindows", "hasWindows8orGreater", "isWritable",   "foundWindowsVersion"};
  const auto isKept = [&](const std::string& name) { return std::find(lost.begin(), lost.end(), name) == lost.end(); };
  for (const auto& field : volume_test::texts()) {
    EXPECT_EQ((*copy.*field.get)(), isKept(field.name) ? (*volume.*field.get)() : std::nullopt) << field.name;
  }
  for (const auto& field : volume_test::flags()) EXPECT_EQ((*copy.*field.get)(), isKept(field.name)) << field.name;
  for (const auto& field : volume_test::numbers()) {
    EXPECT_EQ((*copy.*field.get)(), isKept(field.name) ? (*volume.*field.get)() : std::nullopt) << field.name;
  }
  for (const auto& field : volume_test::uuids()) EXPECT_EQ((*copy.*field.get)(), (*volume.*field.get)()) << field.name;
  EXPECT_TRUE(copy->usageDescription() == volume->usageDescription());
  EXPECT_EQ(copy->filesystemSize(), 0);
  EXPECT_EQ(copy->wrapperArray(), nullptr);
  EXPECT_EQ(*copy->mbr(), *volume->mbr());
  EXPECT_EQ(*copy->partitionID(), *volume->partitionID());
}

TEST(QDVolumeTest, ACopyOfANewRecordIsEqualToIt) {
  const auto copy = QDVolume::init()->copyWithZone();
  ASSERT_NE(copy->mbr(), nullptr);
  EXPECT_TRUE(copy->mbr()->empty());
  expectObjectsAbsent(*copy);
}

TEST(QDVolumeTest, ACopyOfARecordWithoutABufferHasNone) {
  const auto volume = QDVolume::init();
  volume->setMbr(nullptr);
  EXPECT_EQ(volume->copyWithZone()->mbr(), nullptr);
}

TEST(QDVolumeTest, ACopyAndItsSourceShareTheirInfo) {
  const auto volume = QDVolume::init();
  volume->appendInfo("a");
  const auto copy = volume->copyWithZone();
  copy->appendInfo("b");
  EXPECT_EQ(copy->info(), volume->info());
  EXPECT_EQ(*volume->info(), "ab");
}

TEST(QDVolumeTest, AppendingToACopysBufferOrPartitionIDChangesNeitherRecord) {
  const auto volume = QDVolume::init();
  volume->appendMBRData({1});
  volume->appendpartitionIDData("a");
  const auto copy = volume->copyWithZone();
  copy->appendMBRData({2});
  copy->appendpartitionIDData("b");
  EXPECT_EQ(*copy->mbr(), Bytes{1});
  EXPECT_EQ(*copy->partitionID(), "a");
  EXPECT_EQ(*volume->mbr(), Bytes{1});
  EXPECT_EQ(*volume->partitionID(), "a");
}

TEST(QDVolumeTest, AppendingToTheSourceLeavesItsCopyUnchanged) {
  const auto volume = QDVolume::init();
  volume->appendMBRData({1});
  volume->appendpartitionIDData("a");
  const auto copy = volume->copyWithZone();
  volume->appendMBRData({2});
  volume->appendpartitionIDData("b");
  EXPECT_EQ(*copy->mbr(), Bytes{1});
  EXPECT_EQ(*copy->partitionID(), "a");
}

TEST(QDVolumeTest, AppendingToACopyCreatesAnAbsentPartitionID) {
  const auto copy = QDVolume::init()->copyWithZone();
  copy->appendpartitionIDData("a");
  copy->appendpartitionIDData("b");
  EXPECT_EQ(*copy->partitionID(), "ab");
}

TEST(QDVolumeTest, ABufferThatIsSetOnACopyCanGrow) {
  const auto copy = QDVolume::init()->copyWithZone();
  copy->setMbr(std::make_shared<Bytes>());
  copy->appendMBRData({1});
  EXPECT_EQ(*copy->mbr(), Bytes{1});
}

TEST(QDVolumeTest, ACopyHasTheSourcesClass) {
  struct Special : QDVolume {
    std::shared_ptr<QDVolume> newRecord() const override { return std::make_shared<Special>(); }
  };
  const auto special = std::make_shared<Special>();
  special->setDiskName("WIN");
  const auto copy = special->copyWithZone();
  EXPECT_NE(dynamic_cast<Special*>(copy.get()), nullptr);
  EXPECT_EQ(copy->diskName(), "WIN");
}

TEST(QDVolumeTest, ANewRecordsDumpHasTheBufferAndTheFileSystemSize) {
  EXPECT_EQ(QDVolume::init()->description(), "     MBR: <>\n     File System Size:0\n");
}

TEST(QDVolumeTest, ADumpWithoutABufferHasTheFileSystemSize) {
  const auto volume = QDVolume::init();
  volume->setMbr(nullptr);
  volume->setFilesystemSize(-9223372036854775807 - 1);
  EXPECT_EQ(volume->description(), "     File System Size:-9223372036854775808\n");
}

TEST(QDVolumeTest, AFullDumpHasItsLinesInOrder) {
  const auto volume = QDVolume::init();
  volume->setFilePath("/Volumes/WIN");
  volume->appendMBRData({0xDE, 0xAD, 0xBE, 0xEF, 0x01});
  volume->appendpartitionIDData("id");
  volume->setFilesystemSize(1500000000);
  volume->setDrivePath("/dev/disk2");
  volume->setDevice("/dev/disk2s3");
  volume->appendInfo("note");
  volume->setDiskName("WIN");
  vorlix::Dictionary bold;
  bold.set("Font", std::string("Bold"));
  AttributedString usage("used ", bold);
  usage.append("for tests");
  volume->setUsageDescription(usage);
  volume->setHumanSize("1.50 GB");
  volume->setFileSystemType("ntfs");
  volume->setFreeSpace("1000");
  volume->setTotalSize("1500000000");
  // These fields have no line.
  volume->setVmUsername("user");
  volume->setVmPassword("secret");
  volume->setVolumeType("disk");
  volume->setMediaSize("2 GB");
  volume->setVolumeUUID(UUID());
  EXPECT_EQ(volume->description(),
            "File Path: /Volumes/WIN\n"
            "     MBR: <deadbeef 01>\n"
            "     Partition ID:id\n"
            "     File System Size:1500000000\n"
            "     Drive Path: /dev/disk2\n"
            "     Device: /dev/disk2s3\n"
            "     Info: note\n"
            "     Disk Name: WIN\n"
            "     Usage: used for tests\n"
            "     Readble Size:1.50 GB\n"
            "     File System Type: ntfs\n"
            "     Free Space: 1000\n"
            "     Total Size: 1500000000\n");
}

TEST(QDVolumeTest, EmptyTextHasALineInTheDump) {
  const auto volume = QDVolume::init();
  volume->setMbr(nullptr);
  volume->setFilePath("");
  EXPECT_EQ(volume->description(), "File Path: \n     File System Size:0\n");
}

TEST(QDVolumeTest, TheLabelSaysBytesAfterTheSize) {
  const auto volume = QDVolume::init();
  volume->setDiskName("WIN");
  volume->setHumanSize("1.50 GB");
  EXPECT_EQ(volume->diskLabelWithSize(), "WIN (1.50 GB bytes)");
}

TEST(QDVolumeTest, TheLabelOfAbsentFieldsHasPlaceholders) {
  EXPECT_EQ(QDVolume::init()->diskLabelWithSize(), "(null) ((null) bytes)");
}

// Readers must see one of the two values complete while writers replace them. ThreadSanitizer detects further races.
TEST(QDVolumeAtomicityTest, AGetterReturnsACompleteValueWhileAnotherThreadReplacesIt) {
  const auto volume = volume_test::filled();
  const std::string values[] = {std::string(100, 'a'), std::string(3000, 'b')};
  const AttributedString styled[] = {AttributedString(values[0]), AttributedString(values[1])};
  std::atomic<bool> done = false;
  std::atomic<size_t> broken = 0;
  std::atomic<size_t> passes = 0;
  const auto isWhole = [&](const std::string& text) { return text == values[0] || text == values[1]; };

  const auto write = [&](int first) {
    for (int i = 0; i < 500; ++i) {
      const auto which = static_cast<size_t>((i + first) % 2);
      for (const auto& field : volume_test::texts()) (*volume.*field.set)(values[which]);
      for (const auto& field : volume_test::numbers()) (*volume.*field.set)(Number::numberWithLongLong(i));
      for (const auto& field : volume_test::uuids()) (*volume.*field.set)(UUID());
      volume->setUsageDescription(styled[which]);
      volume->setInfo(std::make_shared<std::string>(values[which]));
      volume->setPartitionID(std::make_shared<std::string>(values[which]));
      volume->setMbr(std::make_shared<Bytes>(values[which].begin(), values[which].end()));
    }
  };
  const auto read = [&] {
    while (!done) {
      for (const auto& field : volume_test::texts()) {
        if (!isWhole((*volume.*field.get)().value_or(""))) ++broken;
      }
      for (const auto& field : volume_test::numbers()) {
        if (!(*volume.*field.get)()) ++broken;
      }
      for (const auto& field : volume_test::uuids()) {
        if (!(*volume.*field.get)()) ++broken;
      }
      if (!isWhole(volume->usageDescription()->string())) ++broken;
      if (!isWhole(*volume->info()) || !isWhole(*volume->partitionID())) ++broken;
      const auto bytes = volume->mbr();
      if (!isWhole(std::string(bytes->begin(), bytes->end()))) ++broken;
      ++passes;
    }
  };
  write(0);  // so that readers never see the initial values
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) readers.emplace_back(read);
  while (passes == 0) std::this_thread::yield();
  const size_t before = passes;
  std::thread writer(write, 1);
  do {
    write(0);
  } while (passes == before);
  writer.join();
  done = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(broken, 0U);
}

}  // namespace
