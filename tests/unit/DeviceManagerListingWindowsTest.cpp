// SPDX-License-Identifier: Apache-2.0
//
// The list of mounted volumes: Windows detection, the paths of boot files, and the cost of listing many volumes.
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

TEST_F(DeviceManagerListingWindowsTest, AnInstalledWindowsIsDetected) {
  mountVolume("disk0s3", "BOOTCAMP", "ntfs");
  mountVolume("disk0s4", "Data", "ntfs");
  installWindows("BOOTCAMP");
  EXPECT_TRUE(named("BOOTCAMP")->hasWindows());
  EXPECT_FALSE(named("Data")->hasWindows());
  EXPECT_THAT(namesOf(withWindows()), ElementsAre("BOOTCAMP"));
  EXPECT_THAT(namesOf(manager->attachedDisksShowingWindowsOnly(false)), ElementsAre("BOOTCAMP", "Data"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerListingWindowsTest, FolderNamesMatchInAnyCase) {
  mountVolume("disk0s3", "Upper", "ntfs");
  makeFolder("Upper/WINDOWS/system32");
  EXPECT_TRUE(named("Upper")->hasWindows());
}

TEST_F(DeviceManagerListingWindowsTest, AWindowsFolderAloneIsNotEnough) {
  mountVolume("disk0s3", "Half", "ntfs");
  makeFolder("Half/Windows");
  EXPECT_FALSE(named("Half")->hasWindows());
  EXPECT_THAT(withWindows(), IsEmpty());
}

TEST_F(DeviceManagerListingWindowsTest, FilesInPlaceOfTheFoldersDoNotCount) {
  mountVolume("disk0s3", "One", "ntfs");
  mountVolume("disk0s4", "Two", "ntfs");
  placeFile("One/Windows");
  placeFile("Two/Windows/System32");
  EXPECT_THAT(withWindows(), IsEmpty());
}

TEST_F(DeviceManagerListingWindowsTest, AnInstallersImageIsDetected) {
  mountVolume("disk0s3", "Installer", "msdos");
  placeFile("Installer/sources/boot.wim");
  EXPECT_TRUE(named("Installer")->hasWindows());
  EXPECT_THAT(namesOf(withWindows()), ElementsAre("Installer"));
}

TEST_F(DeviceManagerListingWindowsTest, AnInstallersImageIsDetectedInAnyCaseAndBesideAnIncompleteWindows) {
  mountVolume("disk0s3", "Installer", "msdos");
  placeFile("Installer/SOURCES/BOOT.WIM");
  makeFolder("Installer/Windows");
  EXPECT_TRUE(named("Installer")->hasWindows());
}

TEST_F(DeviceManagerListingWindowsTest, AFolderInPlaceOfTheImageDoesNotCount) {
  mountVolume("disk0s3", "Installer", "msdos");
  makeFolder("Installer/sources/boot.wim");
  mountVolume("disk0s4", "Sources", "msdos");
  placeFile("Sources/sources/install.wim");
  EXPECT_THAT(withWindows(), IsEmpty());
}

TEST_F(DeviceManagerListingWindowsTest, WindowsOnOtherFileSystemsIsListedOnlyAmongAllDisks) {
  mountVolume("disk0s3", "Plus", "hfs");
  installWindows("Plus");
  mountVolume("disk0s4", "Data", "hfs");
  EXPECT_THAT(withWindows(), IsEmpty());
  EXPECT_THAT(namesOf(manager->attachedDisksShowingWindowsOnly(true, true)), ElementsAre("Plus"));
}

TEST_F(DeviceManagerListingWindowsTest, AVolumeWhoseFolderIsMissingIsListedWithoutWindows) {
  const std::string path = mountVolume("disk0s3", "Gone", "ntfs");
  installWindows("Gone");
  machine.removeItem(path);
  const auto volume = named("Gone");
  EXPECT_FALSE(volume->hasWindows());
  EXPECT_EQ(volume->filePath(), path);
  EXPECT_EQ(volume->totalSize(), "1000000000");
  EXPECT_THAT(withWindows(), IsEmpty());
}

TEST_F(DeviceManagerListingWindowsTest, TheInstancesFileManagerIsNotUsed) {
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

  /// Adds a partition with boot files.
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

TEST_F(DeviceManagerBootFilesTest, PathsAreOnTheReservedPartitionOfTheSameDisk) {
  mountVolume("disk0s4", "Data", "ntfs");
  const std::string reserved = addReserved("disk0s2", "reserved");
  mountVolume("disk0s5", "Last", "ntfs");
  for (const bool windowsOnly : {false, true}) {
    const auto volume = named("BOOTCAMP", manager->attachedDisksShowingWindowsOnly(windowsOnly));
    EXPECT_EQ(volume->bootResourcePath(), reserved + "/BOOT");
    EXPECT_EQ(volume->bootMgrPath(), reserved + "/bootmgr");
  }
}

TEST_F(DeviceManagerBootFilesTest, OnlyVolumesWithWindowsGetPaths) {
  addReserved("disk0s2", "reserved");
  mountVolume("disk0s4", "Data", "ntfs");
  EXPECT_EQ(named("Data")->bootResourcePath(), std::nullopt);
  EXPECT_EQ(named("Data")->bootMgrPath(), std::nullopt);
  EXPECT_EQ(named("System Reserved")->bootResourcePath(), std::nullopt);
}

TEST_F(DeviceManagerBootFilesTest, AVolumeWithItsOwnBootFolderKeepsTheDefaults) {
  addReserved("disk0s2", "reserved");
  makeFolder("BOOTCAMP/BOOT");
  EXPECT_EQ(named("BOOTCAMP")->bootResourcePath(), std::nullopt);
  EXPECT_EQ(named("BOOTCAMP")->bootMgrPath(), std::nullopt);
}

TEST_F(DeviceManagerBootFilesTest, AFileCountsAsABootItemToo) {
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

TEST_F(DeviceManagerBootFilesTest, TheReservedPartitionIsFoundOnlyAmongTheRequestedKinds) {
  const std::string reserved = addReserved("disk0s2", "reserved", "hfs");
  mountVolume("disk0s4", "Last", "ntfs");
  EXPECT_EQ(named("BOOTCAMP", manager->attachedDisksShowingWindowsOnly(true, true))->bootResourcePath(),
            reserved + "/BOOT");
  // Without the reserved partition, the paths are those of the last listed volume.
  const auto volume = named("BOOTCAMP", manager->attachedDisksShowingWindowsOnly(true, false));
  EXPECT_EQ(volume->bootResourcePath(), mounts / "Last/BOOT");
  EXPECT_EQ(volume->bootMgrPath(), mounts / "Last/bootmgr");
}

TEST_F(DeviceManagerBootFilesTest, WithoutAReservedPartitionPathsAreOnTheLastVolumeEvenWithoutWindows) {
  mountVolume("disk5s1", "Last", "msdos");
  for (const bool windowsOnly : {false, true}) {
    const auto volume = named("BOOTCAMP", manager->attachedDisksShowingWindowsOnly(windowsOnly));
    EXPECT_EQ(volume->bootResourcePath(), mounts / "Last/BOOT");
    EXPECT_EQ(volume->bootMgrPath(), mounts / "Last/bootmgr");
  }
}

TEST_F(DeviceManagerBootFilesTest, TheOnlyVolumeGetsItsOwnPaths) {
  EXPECT_EQ(named("BOOTCAMP")->bootResourcePath(), windows + "/BOOT");
  EXPECT_EQ(named("BOOTCAMP")->bootMgrPath(), windows + "/bootmgr");
}

TEST_F(DeviceManagerBootFilesTest, TheFirstListedOfSeveralReservedPartitionsIsUsed) {
  const std::string first = addReserved("disk0s5", "first");
  addReserved("disk0s2", "second");
  EXPECT_EQ(named("BOOTCAMP")->bootResourcePath(), first + "/BOOT");
  EXPECT_EQ(named("BOOTCAMP")->bootMgrPath(), first + "/bootmgr");
}

TEST_F(DeviceManagerBootFilesTest, AReservedPartitionWithWindowsIsNotUsed) {
  addReserved("disk0s2", "reserved");
  makeFolder("reserved/Windows/System32");
  mountVolume("disk0s4", "Last", "ntfs");
  EXPECT_EQ(named("BOOTCAMP")->bootResourcePath(), mounts / "Last/BOOT");
}

TEST_F(DeviceManagerBootFilesTest, OnNTFSABootItemCountsInAnySpelling) {
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

TEST_F(DeviceManagerListingWindowsTest, TheCostPerVolumeDoesNotDependOnTheirNumber) {
  int mounted = 0;
  size_t calls[2] = {};
  const int counts[2] = {10, 200};
  for (int round = 0; round < 2; ++round) {
    for (; mounted < counts[round]; ++mounted) {
      const std::string number = std::to_string(mounted);
      mountVolume("disk" + number + "s1", "Volume" + number, "ntfs");
      if (mounted % 2 == 0) installWindows("Volume" + number);  // its boot files are searched for, too
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
