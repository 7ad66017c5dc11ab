// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDDiskInfo.h>

#include "tests/unit/support/DiskFixture.h"
#include "tests/unit/support/PropertyListText.h"

namespace vorlix::test {
namespace {

const UUID kVolume = *UUID::fromText(kPartitionText);

Dictionary description() {
  return dictionaryOf({{kDescriptionVolumeKind, textValue("hfs")},
                       {kDescriptionVolumeMountable, true},
                       {kDescriptionVolumeName, textValue("Macintosh HD")},
                       {kDescriptionVolumePath, URL::fileURLWithPath("/Volumes/Macintosh HD")},
                       {kDescriptionVolumeType, textValue("Mac OS Extended")},
                       {kDescriptionVolumeUUID, kVolume},
                       {kDescriptionDevicePath, textValue("IOService:/device")},
                       {kDescriptionDeviceGUID, Data{1, 2, 3}},
                       {kDescriptionDeviceUnit, int64_t{7}},
                       {kDescriptionMediaBlockSize, int64_t{4096}},
                       {kDescriptionMediaEjectable, true},
                       {kDescriptionMediaName, textValue("Medium")},
                       {kDescriptionMediaPath, textValue("IOService:/medium")}});
}

std::shared_ptr<QDDiskInfo> without(const char* key) {
  const Dictionary all = description();
  Dictionary rest;
  for (const auto& [name, value] : all.values()) {
    if (name != key) rest.set(name, value);
  }
  return QDDiskInfo::initWithDiskArbitrationInfo(rest);
}

void expectNoDeviceNorMedia(const QDDiskInfo& info) {
  EXPECT_FALSE(info.devicePath());
  EXPECT_FALSE(info.deviceGUID());
  EXPECT_FALSE(info.deviceUnit());
  EXPECT_FALSE(info.mediaBlockSize());
  EXPECT_FALSE(info.mediaEjectable());
  EXPECT_FALSE(info.mediaName());
  EXPECT_FALSE(info.mediaPath());
}

void expectNothing(const QDDiskInfo& info) {
  EXPECT_FALSE(info.volumeKind());
  EXPECT_FALSE(info.volumeMountable());
  EXPECT_FALSE(info.volumeName());
  EXPECT_FALSE(info.volumePath());
  EXPECT_FALSE(info.volumeType());
  EXPECT_FALSE(info.volumeUUID());
  expectNoDeviceNorMedia(info);
}

void expectVolumeFields(const QDDiskInfo& info) {
  EXPECT_EQ(info.volumeKind(), "hfs");
  EXPECT_TRUE(info.volumeMountable());
  EXPECT_EQ(info.volumeName(), "Macintosh HD");
  EXPECT_EQ(info.volumePath(), URL::fileURLWithPath("/Volumes/Macintosh HD"));
  EXPECT_EQ(info.volumeType(), "Mac OS Extended");
  EXPECT_EQ(info.volumeUUID(), kVolume);
}

TEST(DiskInfoKeysTest, EachKeyIsItsFieldsName) {
  EXPECT_STREQ(VolumeKindKey, "volumeKind");
  EXPECT_STREQ(VolumeMountableKey, "volumeMountable");
  EXPECT_STREQ(VolumeNameKey, "volumeName");
  EXPECT_STREQ(VolumePathKey, "volumePath");
  EXPECT_STREQ(VolumeTypeKey, "volumeType");
  EXPECT_STREQ(VolumeUUIDKey, "volumeUUID");
  EXPECT_STREQ(DevicePathKey, "devicePath");
  EXPECT_STREQ(DeviceGUIDKey, "deviceGUID");
  EXPECT_STREQ(DeviceUnitKey, "deviceUnit");
  EXPECT_STREQ(MediaBlockSizeKey, "mediaBlockSize");
  EXPECT_STREQ(MediaEjectableKey, "mediaEjectable");
  EXPECT_STREQ(MediaNameKey, "mediaName");
  EXPECT_STREQ(MediaPathKey, "mediaPath");
}

TEST(DiskInfoTest, EachFieldHasTheDescriptionsValue) {
  const auto info = QDDiskInfo::initWithDiskArbitrationInfo(description());
  expectVolumeFields(*info);
  EXPECT_EQ(info->devicePath(), "IOService:/device");
  EXPECT_EQ(info->deviceGUID(), (Data{1, 2, 3}));
  EXPECT_EQ(info->deviceUnit(), Number::numberWithLongLong(7));
  EXPECT_EQ(info->mediaBlockSize(), Number::numberWithLongLong(4096));
  EXPECT_TRUE(info->mediaEjectable());
  EXPECT_EQ(info->mediaName(), "Medium");
  EXPECT_EQ(info->mediaPath(), "IOService:/medium");
}

TEST(DiskInfoTest, AnEmptyDescriptionLeavesEverythingAbsentOrFalse) {
  expectNothing(*QDDiskInfo::initWithDiskArbitrationInfo(Dictionary()));
}

TEST(DiskInfoTest, AMissingKeyAffectsOnlyItsOwnField) {
  EXPECT_FALSE(without(kDescriptionVolumeKind)->volumeKind());
  EXPECT_FALSE(without(kDescriptionVolumeName)->volumeName());
  EXPECT_FALSE(without(kDescriptionVolumePath)->volumePath());
  EXPECT_FALSE(without(kDescriptionVolumeType)->volumeType());
  EXPECT_FALSE(without(kDescriptionVolumeUUID)->volumeUUID());
  EXPECT_FALSE(without(kDescriptionDevicePath)->devicePath());
  EXPECT_FALSE(without(kDescriptionDeviceGUID)->deviceGUID());
  EXPECT_FALSE(without(kDescriptionDeviceUnit)->deviceUnit());
  EXPECT_FALSE(without(kDescriptionMediaBlockSize)->mediaBlockSize());
  EXPECT_FALSE(without(kDescriptionMediaName)->mediaName());
  EXPECT_FALSE(without(kDescriptionMediaPath)->mediaPath());
  expectVolumeFields(*without(kDescriptionMediaPath));
}

TEST(DiskInfoTest, AFlagWithoutAKeyIsFalse) {
  EXPECT_FALSE(without(kDescriptionVolumeMountable)->volumeMountable());
  EXPECT_TRUE(without(kDescriptionVolumeMountable)->mediaEjectable());
  EXPECT_FALSE(without(kDescriptionMediaEjectable)->mediaEjectable());
  EXPECT_TRUE(without(kDescriptionMediaEjectable)->volumeMountable());
}

TEST(DiskInfoTest, AFlagHasItsKeysValue) {
  const auto info = QDDiskInfo::initWithDiskArbitrationInfo(
      dictionaryOf({{kDescriptionVolumeMountable, false}, {kDescriptionMediaEjectable, true}}));
  EXPECT_FALSE(info->volumeMountable());
  EXPECT_TRUE(info->mediaEjectable());
}

TEST(DiskInfoTest, ValuesOfOtherTypesAreIgnored) {
  const Dictionary all = description();
  Dictionary odd;
  for (const auto& [key, value] : all.values()) odd.set(key, std::make_shared<const Dictionary>());
  expectNothing(*QDDiskInfo::initWithDiskArbitrationInfo(odd));
}

class DiskInfoItemTypeTest : public DiskTest {
 protected:
  DiskInfoItemTypeTest() {
    machine.addDisk("disk2", 1 << 20, 512);
    machine.addSlice("disk2", 1, 8, 100);
    addVolume("disk2s1", "/Volumes/EFI", true);
  }
  static URL at(const char* path) { return URL::fileURLWithPath(path); }
};

TEST_F(DiskInfoItemTypeTest, TypeZeroFindsAVolumeByItsMountPoint) {
  const auto disk = QDDiskInfo::diskForItemType(0, at("/Volumes/EFI"));
  ASSERT_TRUE(disk);
  EXPECT_EQ(disk->bsdName(), "disk2s1");
  EXPECT_FALSE(QDDiskInfo::diskForItemType(0, at("/dev/disk2s1")));
}

TEST_F(DiskInfoItemTypeTest, TypeOneFindsADeviceByItsNode) {
  const auto disk = QDDiskInfo::diskForItemType(1, at("/dev/disk2"));
  ASSERT_TRUE(disk);
  EXPECT_EQ(disk->bsdName(), "disk2");
  EXPECT_FALSE(QDDiskInfo::diskForItemType(1, at("/Volumes/EFI")));
}

TEST_F(DiskInfoItemTypeTest, AnyOtherTypeFindsNothing) {
  for (const int64_t type : {int64_t{2}, int64_t{-1}, int64_t{1} << 32, (int64_t{1} << 32) + 1}) {
    EXPECT_FALSE(QDDiskInfo::diskForItemType(type, at("/dev/disk2"))) << type;
    EXPECT_FALSE(QDDiskInfo::diskForItemType(type, at("/Volumes/EFI"))) << type;
  }
}

TEST_F(DiskInfoItemTypeTest, EachLookupOpensAndClosesItsOwnConnection) {
  static_cast<void>(QDDiskInfo::diskForItemType(1, at("/dev/disk2")));
  static_cast<void>(QDDiskInfo::diskForItemType(2, at("/dev/disk2")));
  EXPECT_EQ(machine.journal(), (Lines{"session open", "session close", "session open", "session close"}));
}

TEST_F(DiskInfoItemTypeTest, ADiskStaysUsableAfterItsConnectionIsClosed) {
  const auto info = QDDiskInfo::infoForDeviceAtURL(at("/dev/disk2"));
  ASSERT_TRUE(info);
  EXPECT_EQ(machine.journal(), (Lines{"session open", "session close", "describe disk2"}));
  EXPECT_EQ(info->mediaBlockSize(), Number::numberWithLongLong(512));
}

TEST_F(DiskInfoItemTypeTest, AVolumesRecordHasItsDescription) {
  const auto info = QDDiskInfo::infoForVolumeAtURL(at("/Volumes/EFI"));
  ASSERT_TRUE(info);
  EXPECT_EQ(info->volumeKind(), "msdos");
  EXPECT_EQ(info->volumePath(), at("/Volumes/EFI"));
}

TEST_F(DiskInfoItemTypeTest, WithoutADiskThereIsNoRecord) {
  EXPECT_FALSE(QDDiskInfo::infoForDeviceAtURL(at("/dev/disk9")));
  EXPECT_FALSE(QDDiskInfo::infoForDeviceAtURL(at("/Volumes/EFI")));
  EXPECT_FALSE(QDDiskInfo::infoForVolumeAtURL(at("/Volumes/Other")));
  EXPECT_FALSE(QDDiskInfo::infoForVolumeAtURL(at("/dev/disk2s1")));
}

TEST_F(DiskInfoItemTypeTest, WithoutAConnectionThereIsNeitherDiskNorRecord) {
  machine.refuseSessions();
  EXPECT_FALSE(QDDiskInfo::diskForItemType(1, at("/dev/disk2")));
  EXPECT_FALSE(QDDiskInfo::infoForDeviceAtURL(at("/dev/disk2")));
  EXPECT_FALSE(QDDiskInfo::infoForVolumeAtURL(at("/Volumes/EFI")));
}

TEST_F(DiskInfoItemTypeTest, ADiskWithoutADescriptionGivesAnEmptyRecord) {
  machine.hideDescription("disk2");
  const auto info = QDDiskInfo::infoForDeviceAtURL(at("/dev/disk2"));
  ASSERT_TRUE(info);
  expectNothing(*info);
  expectNothing(*QDDiskInfo::initWithDiskArbitrationDisk(nullptr));
}

std::shared_ptr<QDDiskInfo> roundTrip(const std::shared_ptr<QDDiskInfo>& info) {
  return KeyedUnarchiver::unarchivedObject<QDDiskInfo>(KeyedArchiver::archivedDataWithRootObject(info));
}

TEST(DiskInfoArchiveTest, CodingIsSecure) {
  EXPECT_TRUE(QDDiskInfo::supportsSecureCoding());
}

TEST(DiskInfoArchiveTest, VolumeFieldsAreKeptAndTheOthersAreLost) {
  const auto info = roundTrip(QDDiskInfo::initWithDiskArbitrationInfo(description()));
  ASSERT_TRUE(info);
  expectVolumeFields(*info);
  expectNoDeviceNorMedia(*info);
}

TEST(DiskInfoArchiveTest, AnEmptyRecordStaysEmpty) {
  const auto info = roundTrip(QDDiskInfo::initWithDiskArbitrationInfo(Dictionary()));
  ASSERT_TRUE(info);
  expectNothing(*info);
}

TEST(DiskInfoArchiveTest, SixEntriesAreWrittenInOrderAndTheFlagIsInline) {
  const auto info = QDDiskInfo::initWithDiskArbitrationInfo(description());
  const std::string xml = xmlOf(KeyedArchiver::archivedDataWithRootObject(info));
  // References are numbered in the order in which the objects were encoded. A URL and a UUID also add their classes.
  const std::string record = "<dict>" + entry("volumeKind", uid(2)) + entry("volumeMountable", "<true/>") +
                             entry("volumeName", uid(3)) + entry("volumePath", uid(4)) + entry("volumeType", uid(7)) +
                             entry("volumeUUID", uid(8)) + "<key>$class</key>";
  EXPECT_NE(xml.find(record), std::string::npos) << xml;
  EXPECT_NE(xml.find(classNamed("QDDiskInfo")), std::string::npos) << xml;
  for (const char* key : {DevicePathKey, DeviceGUIDKey, DeviceUnitKey, MediaBlockSizeKey, MediaEjectableKey,
                          MediaNameKey, MediaPathKey}) {
    EXPECT_EQ(xml.find(key), std::string::npos) << key;
  }
}

// Decodes an archive of a record whose entries refer to objects from 3 on. Object 2 is the record's class.
std::shared_ptr<QDDiskInfo> decoded(const std::string& entries, const std::string& objects) {
  return KeyedUnarchiver::unarchivedObject<QDDiskInfo>(
      archiveOf("<dict>" + entries + entry("$class", uid(2)) + "</dict>" + classNamed("QDDiskInfo") + objects));
}

const std::string kUUIDObjects = "<dict>" + entry("NS.uuidbytes", "<data>ABEiM0RVZneImaq7zN3u/w==</data>") +
                                 entry("$class", uid(4)) + "</dict>" + classNamed("NSUUID");

TEST(DiskInfoArchiveTest, TheIdentifierIsReadAsAUUID) {
  const auto info = decoded(entry("volumeUUID", uid(3)), kUUIDObjects);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->volumeUUID(), kVolume);
}

TEST(DiskInfoArchiveTest, AnIdentifierAsAStringIsIgnored) {
  const auto info = decoded(entry("volumeUUID", uid(3)), std::string("<string>") + kPartitionText + "</string>");
  ASSERT_TRUE(info);
  EXPECT_FALSE(info->volumeUUID());
}

TEST(DiskInfoArchiveTest, StringsOfAnotherClassAreIgnored) {
  const auto info = decoded(entry("volumeKind", uid(3)) + entry("volumeName", uid(3)) + entry("volumeType", uid(3)) +
                                entry("volumePath", uid(3)),
                            kUUIDObjects);
  ASSERT_TRUE(info);
  expectNothing(*info);
}

TEST(DiskInfoArchiveTest, APathAsAStringIsIgnored) {
  const auto info = decoded(entry("volumePath", uid(3)), "<string>file:///Volumes/EFI</string>");
  ASSERT_TRUE(info);
  EXPECT_FALSE(info->volumePath());
}

TEST(DiskInfoArchiveTest, DeviceAndMediaEntriesAreNotRead) {
  const auto info = decoded(entry("devicePath", uid(3)) + entry("mediaName", uid(3)) + entry("mediaPath", uid(3)) +
                                entry("mediaEjectable", "<true/>"),
                            "<string>text</string>");
  ASSERT_TRUE(info);
  expectNothing(*info);
}

TEST(DiskInfoArchiveTest, AnotherClassesArchiveGivesNoRecord) {
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObject<QDDiskInfo>(
      archiveOf("<dict>" + entry("$class", uid(2)) + "</dict>" + classNamed("QDVolume"))));
  EXPECT_FALSE(KeyedUnarchiver::unarchivedObject<QDDiskInfo>(Data{1, 2, 3}));
}

}  // namespace
}  // namespace vorlix::test
