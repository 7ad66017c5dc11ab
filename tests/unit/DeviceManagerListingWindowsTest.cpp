// SPDX-License-Identifier: Apache-2.0
//
// The list of mounted volumes: Windows on them, where its boot files are, and what listing many of them costs.
#include "tests/unit/support/DeviceManagerFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DeviceManagerListingWindowsTest : public DeviceManagerTest {
 protected:
  Volumes withWindows() { return manager->attachedDisksShowingWindowsOnly(true); }

  std::shared_ptr<QDVolume> named(const std::string& name, const Volumes& volumes) {
    for (const auto& volume : volumes) {
      if (volume->diskName() == name) return volume;
    }
    throw std::runtime_error("not listed: " + name);
  }
  std::shared_ptr<QDVolume> named(const std::string& name) { return named(name, manager->attachedDisks()); }
};

// ------------------------------------------------------------------------------------------------------------ presence

TEST_F(DeviceManagerListingWindowsTest, AnInstalledWindowsIsSeen) {
  mountVolume("disk0s3", "BOOTCAMP", "ntfs");
  mountVolume("disk0s4", "Data", "ntfs");
  installWindows("BOOTCAMP");
  EXPECT_TRUE(named("BOOTCAMP")->hasWindows());
  EXPECT_FALSE(named("Data")->hasWindows());
  EXPECT_THAT(namesOf(withWindows()), ElementsAre("BOOTCAMP"));
  EXPECT_THAT(namesOf(manager->attachedDisksShowingWindowsOnly(false)), ElementsAre("BOOTCAMP", "Data"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerListingWindowsTest, FolderNamesAreMatchedWithoutRegardToTheirCase) {
  mountVolume("disk0s3", "Upper", "ntfs");
  makeFolder("Upper/WINDOWS/system32");
  EXPECT_TRUE(named("Upper")->hasWindows());
}

TEST_F(DeviceManagerListingWindowsTest, AWindowsFolderAloneIsNone) {
  mountVolume("disk0s3", "Half", "ntfs");
  makeFolder("Half/Windows");
  EXPECT_FALSE(named("Half")->hasWindows());
  EXPECT_THAT(withWindows(), IsEmpty());
}

TEST_F(DeviceManagerListingWindowsTest, FilesInTheFoldersPlaceAreNone) {
  mountVolume("disk0s3", "One", "ntfs");
  mountVolume("disk0s4", "Two", "ntfs");
  placeFile("One/Windows");
  placeFile("Two/Windows/System32");
  EXPECT_THAT(withWindows(), IsEmpty());
}

TEST_F(DeviceManagerListingWindowsTest, AnInstallersImageIsSeen) {
  mountVolume("disk0s3", "Installer", "msdos");
  placeFile("Installer/sources/boot.wim");
  EXPECT_TRUE(named("Installer")->hasWindows());
  EXPECT_THAT(namesOf(withWindows()), ElementsAre("Installer"));
}

TEST_F(DeviceManagerListingWindowsTest, AnInstallersImageIsSeenInAnyCaseAndBesideHalfAWindows) {
  mountVolume("disk0s3", "Installer", "msdos");
  placeFile("Installer/SOURCES/BOOT.WIM");
  makeFolder("Installer/Windows");
  EXPECT_TRUE(named("Installer")->hasWindows());
}

TEST_F(DeviceManagerListingWindowsTest, AFolderInTheImagesPlaceIsNone) {
  mountVolume("disk0s3", "Installer", "msdos");
  makeFolder("Installer/sources/boot.wim");
  mountVolume("disk0s4", "Sources", "msdos");
  placeFile("Sources/sources/install.wim");
  EXPECT_THAT(withWindows(), IsEmpty());
}

TEST_F(DeviceManagerListingWindowsTest, WindowsOnOtherFileSystemsIsShownOnlyAmongAllDisks) {
  mountVolume("disk0s3", "Plus", "hfs");
  installWindows("Plus");
  mountVolume("disk0s4", "Data", "hfs");
  EXPECT_THAT(withWindows(), IsEmpty());
  EXPECT_THAT(namesOf(manager->attachedDisksShowingWindowsOnly(true, true)), ElementsAre("Plus"));
}

TEST_F(DeviceManagerListingWindowsTest, AVolumeWhoseFolderHasGoneIsListedWithoutWindows) {
  const std::string path = mountVolume("disk0s3", "Gone", "ntfs");
  installWindows("Gone");
  machine.removeItem(path);
  const auto volume = named("Gone");
  EXPECT_FALSE(volume->hasWindows());
  EXPECT_EQ(volume->filePath(), path);
  EXPECT_EQ(volume->totalSize(), "1000000000");
  EXPECT_THAT(withWindows(), IsEmpty());
}

TEST_F(DeviceManagerListingWindowsTest, TheInstancesFileManagerIsNotAsked) {
  class Blind : public FileManager {
   public:
    bool fileExistsAtPath(const std::string&) override { return false; }
    bool fileExistsAtPath(const std::string&, bool&) override { return false; }
    std::optional<Lines> contentsOfDirectoryAtPath(const std::string&) override { return std::nullopt; }
  };
  mountVolume("disk0s3", "BOOTCAMP", "ntfs");
  installWindows("BOOTCAMP");
  manager->setFileManager(std::make_shared<Blind>());
  EXPECT_TRUE(named("BOOTCAMP")->hasWindows());
  manager->setFileManager(nullptr);
  EXPECT_TRUE(named("BOOTCAMP")->hasWindows());
}

// ---------------------------------------------------------------------------------------------------------- boot files

class DeviceManagerBootFilesTest : public DeviceManagerListingWindowsTest {
 protected:
  DeviceManagerBootFilesTest() {
    windows = mountVolume("disk0s3", "BOOTCAMP", "ntfs");
    installWindows("BOOTCAMP");
  }

  /// A partition with boot files.
  std::string addReserved(const std::string& device, const std::string& folderName, const std::string& kind = "ntfs") {
    addDevice(device);
    makeFolder(folderName + "/BOOT");
    placeFile(folderName + "/bootmgr");
    SimulatedVolume volume;
    volume.kind = kind;
    volume.name = "System Reserved";
    volume.mountPath = mounts / folderName;
    volume.mounted = true;
    machine.setVolume(device, volume);
    machine.addMountedVolume({"System Reserved", volume.mountPath, "/dev/" + device, 1, 1});
    return volume.mountPath;
  }

  std::string windows;
};

TEST_F(DeviceManagerBootFilesTest, TheyAreThoseOfTheReservedPartitionOfTheSameDisk) {
  mountVolume("disk0s4", "Data", "ntfs");
  const std::string reserved = addReserved("disk0s2", "reserved");
  mountVolume("disk0s5", "Last", "ntfs");
  for (const bool windowsOnly : {false, true}) {
    const auto volume = named("BOOTCAMP", manager->attachedDisksShowingWindowsOnly(windowsOnly));
    EXPECT_EQ(volume->bootResourcePath(), reserved + "/BOOT");
    EXPECT_EQ(volume->bootMgrPath(), reserved + "/bootmgr");
  }
}

TEST_F(DeviceManagerBootFilesTest, OnlyVolumesWithWindowsGetThem) {
  addReserved("disk0s2", "reserved");
  mountVolume("disk0s4", "Data", "ntfs");
  EXPECT_EQ(named("Data")->bootResourcePath(), std::nullopt);
  EXPECT_EQ(named("Data")->bootMgrPath(), std::nullopt);
  EXPECT_EQ(named("System Reserved")->bootResourcePath(), std::nullopt);
}

TEST_F(DeviceManagerBootFilesTest, AVolumeWithABootItemOfItsOwnKeepsTheDefaults) {
  addReserved("disk0s2", "reserved");
  makeFolder("BOOTCAMP/BOOT");
  EXPECT_EQ(named("BOOTCAMP")->bootResourcePath(), std::nullopt);
  EXPECT_EQ(named("BOOTCAMP")->bootMgrPath(), std::nullopt);
}

TEST_F(DeviceManagerBootFilesTest, AFileIsABootItemToo) {
  addReserved("disk0s2", "reserved");
  placeFile("BOOTCAMP/BOOT");
  EXPECT_EQ(named("BOOTCAMP")->bootResourcePath(), std::nullopt);
}

TEST_F(DeviceManagerBootFilesTest, AnInstallerIsTreatedLikeAnInstallation) {
  const std::string reserved = addReserved("disk0s2", "reserved");
  mountVolume("disk0s4", "Installer", "msdos");
  placeFile("Installer/sources/boot.wim");
  EXPECT_EQ(named("Installer")->bootResourcePath(), reserved + "/BOOT");
}

TEST_F(DeviceManagerBootFilesTest, TheReservedPartitionIsFoundOnlyAmongTheKindsAskedFor) {
  const std::string reserved = addReserved("disk0s2", "reserved", "hfs");
  mountVolume("disk0s4", "Last", "ntfs");
  EXPECT_EQ(named("BOOTCAMP", manager->attachedDisksShowingWindowsOnly(true, true))->bootResourcePath(),
            reserved + "/BOOT");
  // Without it the paths are those of the list's last volume.
  const auto volume = named("BOOTCAMP", manager->attachedDisksShowingWindowsOnly(true, false));
  EXPECT_EQ(volume->bootResourcePath(), mounts / "Last/BOOT");
  EXPECT_EQ(volume->bootMgrPath(), mounts / "Last/bootmgr");
}

TEST_F(DeviceManagerBootFilesTest, WithoutAReservedPartitionTheyAreThoseOfTheLastVolumeWithoutWindowsToo) {
  mountVolume("disk5s1", "Last", "msdos");
  for (const bool windowsOnly : {false, true}) {
    const auto volume = named("BOOTCAMP", manager->attachedDisksShowingWindowsOnly(windowsOnly));
    EXPECT_EQ(volume->bootResourcePath(), mounts / "Last/BOOT");
    EXPECT_EQ(volume->bootMgrPath(), mounts / "Last/bootmgr");
  }
}

TEST_F(DeviceManagerBootFilesTest, AloneItGetsThePathsOfItsOwn) {
  EXPECT_EQ(named("BOOTCAMP")->bootResourcePath(), windows + "/BOOT");
  EXPECT_EQ(named("BOOTCAMP")->bootMgrPath(), windows + "/bootmgr");
}

TEST_F(DeviceManagerBootFilesTest, OfSeveralReservedPartitionsTheFirstInTheListIsTaken) {
  const std::string first = addReserved("disk0s5", "first");
  addReserved("disk0s2", "second");
  EXPECT_EQ(named("BOOTCAMP")->bootResourcePath(), first + "/BOOT");
  EXPECT_EQ(named("BOOTCAMP")->bootMgrPath(), first + "/bootmgr");
}

TEST_F(DeviceManagerBootFilesTest, AReservedPartitionWithWindowsIsNotTaken) {
  addReserved("disk0s2", "reserved");
  makeFolder("reserved/Windows/System32");
  mountVolume("disk0s4", "Last", "ntfs");
  EXPECT_EQ(named("BOOTCAMP")->bootResourcePath(), mounts / "Last/BOOT");
}

TEST_F(DeviceManagerBootFilesTest, OnNTFSAnySpellingIsABootItem) {
  addReserved("disk0s2", "reserved");
  makeFolder("BOOTCAMP/Boot");
  EXPECT_EQ(named("BOOTCAMP")->bootResourcePath(), std::nullopt);
}

TEST_F(DeviceManagerBootFilesTest, EachDiskHasItsOwnReservedPartition) {
  const std::string first = addReserved("disk0s2", "first");
  const std::string second = addReserved("disk1s1", "second");
  mountVolume("disk1s2", "Other", "ntfs");
  installWindows("Other");
  EXPECT_EQ(named("BOOTCAMP")->bootResourcePath(), first + "/BOOT");
  EXPECT_EQ(named("Other")->bootResourcePath(), second + "/BOOT");
}

// ---------------------------------------------------------------------------------------------------------------- cost

TEST_F(DeviceManagerListingWindowsTest, WhatAVolumeCostsDoesNotDependOnTheirNumber) {
  int mounted = 0;
  size_t calls[2] = {};
  const int counts[2] = {10, 200};
  for (int round = 0; round < 2; ++round) {
    for (; mounted < counts[round]; ++mounted) {
      const std::string number = std::to_string(mounted);
      mountVolume("disk" + number + "s1", "Volume" + number, "ntfs");
      if (mounted % 2 == 0) installWindows("Volume" + number);  // its boot files are looked for, too
    }
    machine.clearJournal();
    ASSERT_EQ(manager->attachedDisks().size(), static_cast<size_t>(mounted));
    calls[round] = journalOf({"session open", "describe "}).size();
    EXPECT_EQ(countOf("list mounted volumes"), 1);
    EXPECT_EQ(countOf("session open"), countOf("session close"));
  }
  EXPECT_GT(calls[0], 0U);
  EXPECT_EQ(calls[0] * 20, calls[1]);
}

TEST_F(DeviceManagerListingWindowsTest, WindowsIsFoundAmongManyFiles) {
  mountVolume("disk0s3", "Crowded", "ntfs");
  for (int number = 0; number < 5000; ++number) placeFile("Crowded/file" + std::to_string(number), "");
  EXPECT_FALSE(named("Crowded")->hasWindows());
  installWindows("Crowded");
  EXPECT_TRUE(named("Crowded")->hasWindows());
}

}  // namespace
}  // namespace vorlix::test
