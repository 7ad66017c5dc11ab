// SPDX-License-Identifier: Apache-2.0
//
// The list of mounted volumes: its members, their order, and their fields.
#include <limits>

#include "tests/unit/support/DeviceManagerFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DeviceManagerListingTest : public DeviceManagerTest {
 protected:
  Volumes all() { return manager->attachedDisks(); }
  Volumes windowsKinds() { return manager->attachedDisksShowingWindowsOnly(false); }

  /// The only listed volume.
  std::shared_ptr<QDVolume> one() {
    const Volumes volumes = all();
    if (volumes.size() != 1) throw std::runtime_error(std::to_string(volumes.size()) + " volumes");
    return volumes[0];
  }
};

// --------------------------------------------------------------------------------------------------- members and order

TEST_F(DeviceManagerListingTest, WithoutMountedVolumesTheListIsEmpty) {
  EXPECT_THAT(all(), IsEmpty());
  EXPECT_THAT(windowsKinds(), IsEmpty());
  EXPECT_THAT(machine.journal(), ElementsAre("list mounted volumes", "list mounted volumes"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerListingTest, VolumesComeInMountOrder) {
  mountVolume("disk4s1", "Zulu", "ntfs");
  mountVolume("disk2s2", "Alpha", "msdos");
  mountVolume("disk2s1", "Mike", "exfat");
  EXPECT_THAT(namesOf(all()), ElementsAre("Zulu", "Alpha", "Mike"));
  EXPECT_THAT(namesOf(windowsKinds()), ElementsAre("Zulu", "Alpha", "Mike"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerListingTest, MacVolumesAreListedOnlyIfAllDisksAreRequested) {
  mountVolume("disk0s1", "Plus", "hfs");
  mountVolume("disk0s2", "Container", "apfs");
  mountVolume("disk0s3", "Card", "exfat");
  mountVolume("disk0s4", "Linux", "ext4");
  EXPECT_THAT(namesOf(all()), ElementsAre("Plus", "Container", "Card", "Linux"));
  EXPECT_THAT(namesOf(manager->attachedDisksShowingWindowsOnly(false, true)),
              ElementsAre("Plus", "Container", "Card", "Linux"));
  EXPECT_THAT(namesOf(windowsKinds()), ElementsAre("Card"));
  EXPECT_THAT(namesOf(manager->attachedDisksShowingWindowsOnly(false, false)), ElementsAre("Card"));
}

TEST_F(DeviceManagerListingTest, TheKindIsSearchedWithoutRegardToCase) {
  mountVolume("disk0s1", "Upper", "NTFS");
  mountVolume("disk0s2", "Within", "fuse-NTFS-3g");
  mountVolume("disk0s3", "Dos", "MsDos");
  mountVolume("disk0s4", "Ex", "xExFATx");
  mountVolume("disk0s5", "Not", "exfa");
  EXPECT_THAT(namesOf(windowsKinds()), ElementsAre("Upper", "Within", "Dos", "Ex"));
}

TEST_F(DeviceManagerListingTest, TheKindWithAHyphenNeverMatches) {
  mountVolume("disk0s1", "Upper", "MS-DOS");
  mountVolume("disk0s2", "Lower", "ms-dos");
  EXPECT_THAT(windowsKinds(), IsEmpty());
  EXPECT_THAT(namesOf(all()), ElementsAre("Upper", "Lower"));
}

TEST_F(DeviceManagerListingTest, AVolumeWithoutAKindPassesTheFilter) {
  mountVolume("disk0s1", "Kindless", "hfs");
  machine.removeDescription("disk0s1", "DAVolumeKind");
  EXPECT_THAT(namesOf(windowsKinds()), ElementsAre("Kindless"));
}

TEST_F(DeviceManagerListingTest, AnEmptyKindDoesNotPassTheFilter) {
  mountVolume("disk0s1", "Empty", "");
  EXPECT_THAT(windowsKinds(), IsEmpty());
}

TEST_F(DeviceManagerListingTest, AVolumeWithoutADescriptionIsListedWithTheKnownFields) {
  const std::string path = mountVolume("disk0s1", "Silent", "ntfs");
  machine.hideDescription("disk0s1");
  const Volumes volumes = windowsKinds();
  ASSERT_EQ(volumes.size(), 1U);
  EXPECT_EQ(volumes[0]->diskName(), "Silent");
  EXPECT_EQ(volumes[0]->filePath(), path);
  EXPECT_EQ(volumes[0]->device(), "/dev/disk0s1");
  EXPECT_EQ(volumes[0]->drivePath(), "/dev/disk0");
  EXPECT_EQ(volumes[0]->fileSystemType(), std::nullopt);
  EXPECT_EQ(volumes[0]->mediaUUID(), std::nullopt);
  EXPECT_EQ(volumes[0]->mediaSize(), std::nullopt);
  EXPECT_EQ(volumes[0]->volumeType(), "disk");
  EXPECT_TRUE(volumes[0]->volumeUUID());
}

TEST_F(DeviceManagerListingTest, AVolumeWithoutAMountPathIsOmittedAndNotQueried) {
  addDevice("disk0s1");
  machine.addMountedVolume({"Pathless", std::nullopt, "/dev/disk0s1", 1, 1});
  EXPECT_THAT(all(), IsEmpty());
  EXPECT_THAT(machine.journal(), ElementsAre("list mounted volumes"));
  mountVolume("disk0s2", "After", "ntfs");
  EXPECT_THAT(namesOf(all()), ElementsAre("After"));
}

TEST_F(DeviceManagerListingTest, AVolumeWithoutAWholeDiskIsOmitted) {
  machine.addMountedVolume({"Share", mounts / "share", "//user@server/share", 1, 1});
  mountVolume("disk0s1", "Hidden", "ntfs");
  machine.hideWholeDisk("disk0s1");
  mountVolume("disk0s2", "After", "ntfs");
  OutputCapture output(STDOUT_FILENO);
  const Volumes volumes = all();
  EXPECT_EQ(output.text(), "disk NULL");  // for the share
  EXPECT_THAT(namesOf(volumes), ElementsAre("After"));
}

TEST_F(DeviceManagerListingTest, WithoutASessionNothingIsListed) {
  mountVolume("disk0s1", "Data", "ntfs");
  machine.refuseSessions();
  OutputCapture output(STDOUT_FILENO);
  const Volumes volumes = all();
  EXPECT_EQ(output.text(), "session NULL");
  EXPECT_THAT(volumes, IsEmpty());
}

// -------------------------------------------------------------------------------------------------------------- fields

TEST_F(DeviceManagerListingTest, NamesAndPathsAreThoseOfTheVolume) {
  const std::string path = mountVolume("disk2s3", "Daten \xC3\xA4", "msdos");
  const auto volume = one();
  EXPECT_EQ(volume->diskName(), "Daten \xC3\xA4");
  EXPECT_EQ(volume->filePath(), path);
  EXPECT_EQ(volume->device(), "/dev/disk2s3");
  EXPECT_EQ(volume->drivePath(), "/dev/disk2");
  EXPECT_EQ(volume->fileSystemType(), "msdos");
  EXPECT_EQ(volume->volumeType(), "disk");
}

TEST_F(DeviceManagerListingTest, TheNameComesFromTheMountAndNotFromTheDescription) {
  mountVolume("disk2s3", "Mounted", "msdos");
  machine.setDescription("disk2s3", "DAVolumeName", textValue("Described"));
  EXPECT_EQ(one()->diskName(), "Mounted");
}

TEST_F(DeviceManagerListingTest, TheTypeComesFromTheVolumeMountedThere) {
  mountVolume("disk2s3", "Data", "msdos");
  machine.setDescription("disk2s3", "DAVolumeType", textValue("MS-DOS (FAT32)"));
  EXPECT_EQ(one()->fileSystemType(), "MS-DOS (FAT32)");
}

TEST_F(DeviceManagerListingTest, SizesAreDecimalAndHumanReadable) {
  addDevice("disk2s3");
  machine.addMountedVolume({"Data", mounts / "", "/dev/disk2s3", 500107862016, 8589934592});
  const auto volume = one();
  EXPECT_EQ(volume->totalSize(), "500107862016");
  EXPECT_EQ(volume->freeSpace(), "8589934592");
  EXPECT_EQ(volume->humanSize(), "500.11 GB");
}

TEST_F(DeviceManagerListingTest, AnEmptyFileSystemHasAnEmptyHumanReadableSize) {
  addDevice("disk2s3");
  machine.addMountedVolume({"Data", mounts / "", "/dev/disk2s3", 0, 0});
  const auto volume = one();
  EXPECT_EQ(volume->totalSize(), "0");
  EXPECT_EQ(volume->freeSpace(), "0");
  EXPECT_EQ(volume->humanSize(), "");
}

TEST_F(DeviceManagerListingTest, UnknownSizesAreZeroAndAbsentInHumanReadableForm) {
  addDevice("disk2s3");
  machine.addMountedVolume({"Data", mounts / "", "/dev/disk2s3", std::nullopt, std::nullopt});
  const auto volume = one();
  EXPECT_EQ(volume->totalSize(), "0");
  EXPECT_EQ(volume->freeSpace(), "0");
  EXPECT_EQ(volume->humanSize(), std::nullopt);
}

TEST_F(DeviceManagerListingTest, LargeSizesKeepAllDigits) {
  addDevice("disk2s3");
  machine.addMountedVolume({"Data", mounts / "", "/dev/disk2s3", 9223372036854775807, 1});
  const auto volume = one();
  EXPECT_EQ(volume->totalSize(), "9223372036854775807");
  EXPECT_EQ(volume->freeSpace(), "1");
}

TEST_F(DeviceManagerListingTest, TheMediumsSizesComeFromTheDescription) {
  mountVolume("disk2s3", "Data", "msdos");
  machine.setDescription("disk2s3", "DAMediaSize", Value(int64_t{120034123776}));
  machine.setDescription("disk2s3", "DAMediaBlockSize", Value(int64_t{4096}));
  const auto volume = one();
  EXPECT_EQ(volume->mediaSize(), "120.03 GB");
  EXPECT_EQ(volume->mediaSizeRaw(), Number::numberWithLongLong(120034123776));
  EXPECT_EQ(volume->mediaBlockSize(), Number::numberWithLongLong(4096));
}

TEST_F(DeviceManagerListingTest, MissingMediumSizesAreAbsent) {
  mountVolume("disk2s3", "Data", "msdos");
  machine.removeDescription("disk2s3", "DAMediaSize");
  machine.removeDescription("disk2s3", "DAMediaBlockSize");
  const auto volume = one();
  EXPECT_EQ(volume->mediaSize(), std::nullopt);
  EXPECT_EQ(volume->mediaSizeRaw(), std::nullopt);
  EXPECT_EQ(volume->mediaBlockSize(), std::nullopt);
}

TEST_F(DeviceManagerListingTest, IdentifiersComeFromTheDescription) {
  const UUID medium = *UUID::fromText(kPartitionText);
  const UUID own = *UUID::fromText("0B1E2D3C-4B5A-4978-8695-A4B3C2D1E0F1");
  mountVolume("disk2s1", "EFI", "msdos");
  machine.setDescription("disk2s1", "DAMediaUUID", Value(medium));
  machine.setDescription("disk2s1", "DAVolumeUUID", Value(own));
  machine.setDescription("disk2s1", "DAMediaContent", textValue(kDiskText));
  const auto volume = one();
  EXPECT_EQ(volume->mediaUUID(), medium);
  EXPECT_EQ(volume->volumeUUID(), own);
  EXPECT_EQ(volume->mediaContentUUID(), UUID::fromText(kDiskText));
  EXPECT_EQ(one()->volumeUUID(), own);
}

TEST_F(DeviceManagerListingTest, ContentThatIsNotAnIdentifierIsAbsent) {
  mountVolume("disk2s1", "Data", "ntfs");
  for (const char* content : {"Windows_NTFS", "", "C12A7328-F81F-11D2-BA4B-00A0C93EC93", "0x07"}) {
    machine.setDescription("disk2s1", "DAMediaContent", textValue(content));
    EXPECT_EQ(one()->mediaContentUUID(), std::nullopt) << content;
  }
}

TEST_F(DeviceManagerListingTest, MissingIdentifiersOfTheMediumAreAbsent) {
  mountVolume("disk2s1", "Data", "ntfs");
  const auto volume = one();
  EXPECT_EQ(volume->mediaUUID(), std::nullopt);
  EXPECT_EQ(volume->mediaContentUUID(), std::nullopt);
}

TEST_F(DeviceManagerListingTest, AVolumeWithoutAnIdentifierGetsANewRandomOneEachTime) {
  mountVolume("disk2s1", "One", "ntfs");
  mountVolume("disk2s2", "Two", "ntfs");
  std::vector<UUID> seen;
  for (int listing = 0; listing < 20; ++listing) {
    for (const auto& volume : all()) {
      ASSERT_TRUE(volume->volumeUUID());
      const UUID uuid = *volume->volumeUUID();
      EXPECT_EQ(std::count(seen.begin(), seen.end(), uuid), 0);
      EXPECT_EQ(uuid.bytes()[6] >> 4, 4);  // RFC 9562: a random UUID
      EXPECT_EQ(uuid.bytes()[8] >> 6, 0b10);
      seen.push_back(uuid);
    }
  }
  EXPECT_EQ(seen.size(), 40U);
}

TEST_F(DeviceManagerListingTest, FieldsThatTheListDoesNotSetKeepTheirDefaults) {
  mountVolume("disk2s1", "Data", "ntfs");
  machine.setDescription("disk2s1", "DAMediaRemovable", Value(true));
  machine.setDescription("disk2s1", "DAMediaWritable", Value(true));
  const auto volume = one();
  EXPECT_FALSE(volume->isRemovable());
  EXPECT_FALSE(volume->isWritable());
  EXPECT_FALSE(volume->isBootable());
  EXPECT_FALSE(volume->hasWindows());
  EXPECT_FALSE(volume->hasWindows8orGreater());
  EXPECT_EQ(volume->filesystemSize(), 0);
  EXPECT_EQ(volume->installedOS(), std::nullopt);
  EXPECT_EQ(volume->networkShare(), std::nullopt);
  EXPECT_EQ(volume->usageDescription(), std::nullopt);
  EXPECT_EQ(volume->foundWindowsVersion(), std::nullopt);
  EXPECT_EQ(volume->bootResourcePath(), std::nullopt);
  EXPECT_EQ(volume->bootMgrPath(), std::nullopt);
}

TEST_F(DeviceManagerListingTest, EveryListHasNewRecords) {
  mountVolume("disk2s1", "Data", "ntfs");
  const auto first = one();
  first->setDiskName("changed");
  const auto second = one();
  EXPECT_NE(first, second);
  EXPECT_EQ(second->diskName(), "Data");
}

// ---------------------------------------------------------------------------------------------- names of other drivers

TEST_F(DeviceManagerListingTest, ADriversNameOfAnNTFSVolumeIsReplacedByItsDevice) {
  mountVolumeFrom("ntfs://disk4s1/Data", "disk4s1", "Data", "ntfs");
  machine.setDescription("disk4s1", "DAVolumeType", textValue("fuse"));
  const auto volume = one();
  EXPECT_EQ(volume->device(), "/dev/disk4s1");
  EXPECT_EQ(volume->drivePath(), "/dev/disk4");
  EXPECT_EQ(volume->fileSystemType(), "ntfs");
}

TEST_F(DeviceManagerListingTest, ADriversNameNeedsNoVolumeName) {
  mountVolumeFrom("ntfs://disk4s1", "disk4s1", "Data", "ntfs");
  EXPECT_EQ(one()->device(), "/dev/disk4s1");
}

TEST_F(DeviceManagerListingTest, TheThirdComponentOfADriversNameIsTheDevice) {
  mountVolumeFrom("ntfs:/disk4s1/disk5s2/x", "disk5s2", "Data", "ntfs");
  const auto volume = one();
  EXPECT_EQ(volume->device(), "/dev/disk5s2");
  EXPECT_EQ(volume->fileSystemType(), "ntfs");
}

TEST_F(DeviceManagerListingTest, ADriversNameWithTooFewComponentsIsUnchanged) {
  machine.addDisk("ntfs:/disk7", 1 << 20, 512);
  machine.addMountedVolume({"Short", mounts / "", "ntfs:/disk7", 1, 1});
  const auto volume = one();
  EXPECT_EQ(volume->device(), "ntfs:/disk7");
  EXPECT_EQ(volume->fileSystemType(), std::nullopt);
}

TEST_F(DeviceManagerListingTest, ADriversNameInOtherCaseIsNotRecognized) {
  mountVolumeFrom("NTFS://disk4s1/Data", "disk4s1", "Data", "ntfs");
  OutputCapture output(STDOUT_FILENO);
  const Volumes volumes = all();
  EXPECT_EQ(output.text(), "disk NULL");
  EXPECT_THAT(volumes, IsEmpty());
}

// -------------------------------------------------------------------------------------------------------- side effects

TEST_F(DeviceManagerListingTest, OnlyTheManagersUnmountStatusIsChanged) {
  mountVolume("disk2s1", "Data", "ntfs");
  manager->setMountStatus(1);
  manager->setDidMount(true);
  manager->setDidUnmount(true);
  manager->setUnmountStatus(0);
  static_cast<void>(all());
  EXPECT_EQ(manager->unmountStatus(), -1);
  EXPECT_EQ(manager->mountStatus(), 1);
  EXPECT_TRUE(manager->didMount());
  EXPECT_TRUE(manager->didUnmount());
  EXPECT_EQ(machine.writes(), Lines());
  EXPECT_EQ(mountsAndUnmounts(), Lines());
}

}  // namespace
}  // namespace vorlix::test
