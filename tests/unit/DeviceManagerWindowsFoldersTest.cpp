// SPDX-License-Identifier: Apache-2.0
//
// The Windows folders on a volume, and the partition that holds its boot files.
#include "tests/unit/support/DeviceManagerFixture.h"

namespace vorlix::test {
namespace {

using testing::IsEmpty;

class DeviceManagerWindowsFoldersTest : public DeviceManagerTest {
 protected:
  DeviceManagerWindowsFoldersTest() { makeFolder("volume"); }

  const std::string root = mounts / "volume";
};

TEST_F(DeviceManagerWindowsFoldersTest, FoldersAndFilesAreFound) {
  installWindows("volume");
  placeFile("volume/sources/boot.wim");
  EXPECT_EQ(QDDeviceManager::windowsFolderFromVolume(root), root + "/Windows");
  EXPECT_EQ(QDDeviceManager::system32FolderFromVolume(root), root + "/Windows/System32");
  EXPECT_EQ(QDDeviceManager::windowsSourcesFolderFromVolume(root), root + "/sources");
  EXPECT_EQ(QDDeviceManager::bootWIMFileFromVolume(root), root + "/sources/boot.wim");
  EXPECT_EQ(machine.journal(), Lines());
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerWindowsFoldersTest, UpperCaseIsFoundAndPreserved) {
  makeFolder("volume/WINDOWS/SYSTEM32");
  placeFile("volume/SOURCES/BOOT.WIM");
  EXPECT_EQ(QDDeviceManager::windowsFolderFromVolume(root), root + "/WINDOWS");
  EXPECT_EQ(QDDeviceManager::system32FolderFromVolume(root), root + "/WINDOWS/SYSTEM32");
  EXPECT_EQ(QDDeviceManager::windowsSourcesFolderFromVolume(root), root + "/SOURCES");
  EXPECT_EQ(QDDeviceManager::bootWIMFileFromVolume(root), root + "/SOURCES/BOOT.WIM");
}

TEST_F(DeviceManagerWindowsFoldersTest, OnAVolumeThatIgnoresCaseTheSpellingOfItsEntriesIsPreserved) {
  machine.ignoreCase(root);
  makeFolder("volume/WINDOWS/system32");
  EXPECT_EQ(QDDeviceManager::system32FolderFromVolume(root), root + "/WINDOWS/system32");
}

TEST_F(DeviceManagerWindowsFoldersTest, ATrailingSlashOfTheVolumeIsNotDoubled) {
  installWindows("volume");
  placeFile("volume/sources/boot.wim");
  EXPECT_EQ(QDDeviceManager::windowsFolderFromVolume(root + "/"), root + "/Windows");
  EXPECT_EQ(QDDeviceManager::bootWIMFileFromVolume(root + "/"), root + "/sources/boot.wim");
}

TEST_F(DeviceManagerWindowsFoldersTest, OnlyWholeNamesMatch) {
  for (const char* name : {"Windows.old", "MyWindows", "Windows ", "System32", "sources2"}) {
    makeFolder(std::string("volume/") + name);
  }
  EXPECT_EQ(QDDeviceManager::windowsFolderFromVolume(root), std::nullopt);
  EXPECT_EQ(QDDeviceManager::system32FolderFromVolume(root), std::nullopt);
  EXPECT_EQ(QDDeviceManager::windowsSourcesFolderFromVolume(root), std::nullopt);
  EXPECT_EQ(QDDeviceManager::bootWIMFileFromVolume(root), std::nullopt);
}

TEST_F(DeviceManagerWindowsFoldersTest, OnlyOneLevelIsSearched) {
  makeFolder("volume/sub/Windows/System32");
  makeFolder("volume/Windows/sub/System32");
  placeFile("volume/sources/sub/boot.wim");
  EXPECT_EQ(QDDeviceManager::windowsFolderFromVolume(root), root + "/Windows");
  EXPECT_EQ(QDDeviceManager::system32FolderFromVolume(root), std::nullopt);
  EXPECT_EQ(QDDeviceManager::bootWIMFileFromVolume(root), std::nullopt);
}

TEST_F(DeviceManagerWindowsFoldersTest, OnlyNamesAreChecked) {
  placeFile("volume/Windows");
  makeFolder("volume/sources/boot.wim");
  EXPECT_EQ(QDDeviceManager::windowsFolderFromVolume(root), root + "/Windows");
  EXPECT_EQ(QDDeviceManager::system32FolderFromVolume(root), std::nullopt);
  EXPECT_EQ(QDDeviceManager::bootWIMFileFromVolume(root), root + "/sources/boot.wim");
}

TEST_F(DeviceManagerWindowsFoldersTest, TheFirstEntryOfSeveralSpellingsIsUsed) {
  for (const char* name : {"windows", "Windows", "WINDOWS", "wINDOWS", "a", "z"}) {
    makeFolder(std::string("volume/") + name);
  }
  for (const char* name : {"windows", "Windows", "WINDOWS", "wINDOWS"}) {
    EXPECT_EQ(QDDeviceManager::windowsFolderFromVolume(root), root + "/" + name);
    machine.removeItem(root + "/" + name);
  }
  EXPECT_EQ(QDDeviceManager::windowsFolderFromVolume(root), std::nullopt);
}

TEST_F(DeviceManagerWindowsFoldersTest, NothingIsFoundWithoutAListing) {
  placeFile("file");
  for (const std::optional<std::string>& path :
       {std::optional<std::string>(), std::optional<std::string>(""), std::optional<std::string>(mounts / "nowhere"),
        std::optional<std::string>(mounts / "file"), std::optional<std::string>(root)}) {
    EXPECT_EQ(QDDeviceManager::windowsFolderFromVolume(path), std::nullopt);
    EXPECT_EQ(QDDeviceManager::system32FolderFromVolume(path), std::nullopt);
    EXPECT_EQ(QDDeviceManager::windowsSourcesFolderFromVolume(path), std::nullopt);
    EXPECT_EQ(QDDeviceManager::bootWIMFileFromVolume(path), std::nullopt);
  }
}

TEST_F(DeviceManagerWindowsFoldersTest, NamesThatAreNotUTF8AreIgnored) {
  makeFolder("volume/\xFF\xFEwindows");
  installWindows("volume");
  EXPECT_EQ(QDDeviceManager::system32FolderFromVolume(root), root + "/Windows/System32");
}

// -------------------------------------------------------------------------------------------- where the boot files are

class DeviceManagerSplitBootTest : public DeviceManagerTest {
 protected:
  DeviceManagerSplitBootTest() {
    for (const char* device : {"disk0s1", "disk0s2", "disk0s3", "disk1s1"}) addDevice(device);
  }

  /// Creates a volume with a BOOT folder.
  std::shared_ptr<QDVolume> withBoot(const std::string& device, const std::string& folderName,
                                     const std::string& name = "System Reserved") {
    makeFolder(folderName + "/BOOT");
    const auto volume = makeVolume(device, mounts / folderName);
    volume->setDiskName(name);
    return volume;
  }

  std::shared_ptr<QDVolume> plain(const std::string& device, const std::string& folderName) {
    makeFolder(folderName);
    const auto volume = makeVolume(device, mounts / folderName);
    volume->setDiskName(folderName);
    return volume;
  }

  /// Expects that the boot files of the Windows on disk0s3 are on the volume in that folder.
  void expectPathsOf(const std::string& folderName, const Volumes& list) {
    const Dictionary answer = manager->splitBootInfo("/dev/disk0s3", list);
    EXPECT_EQ(answer.text("bootFolderPath"), mounts / (folderName + "/BOOT"));
    EXPECT_EQ(answer.text("bootmgrPath"), mounts / (folderName + "/bootmgr"));
    EXPECT_EQ(answer.values().size(), 2U);
  }
};

TEST_F(DeviceManagerSplitBootTest, TheReservedPartitionOfTheSameDiskIsUsed) {
  expectPathsOf("reserved", {plain("/dev/disk0s3", "windows"), withBoot("/dev/disk0s2", "reserved"),
                             plain("/dev/disk0s1", "last")});
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerSplitBootTest, TheFirstReservedPartitionIsUsed) {
  expectPathsOf("first", {withBoot("/dev/disk0s2", "first"), withBoot("/dev/disk0s1", "second")});
}

TEST_F(DeviceManagerSplitBootTest, TheDevicePrefixIsOptional) {
  const Volumes list = {withBoot("disk0s2", "reserved"), plain("/dev/disk0s1", "last")};
  expectPathsOf("reserved", list);
  EXPECT_EQ(manager->splitBootInfo("disk0s3", list).text("bootFolderPath"), mounts / "reserved/BOOT");
}

TEST_F(DeviceManagerSplitBootTest, AReservedPartitionOfAnotherDiskIsNotUsed) {
  expectPathsOf("last", {withBoot("/dev/disk1s1", "reserved"), plain("/dev/disk0s1", "last")});
}

TEST_F(DeviceManagerSplitBootTest, AReservedPartitionWithWindowsIsNotUsed) {
  const auto volume = withBoot("/dev/disk0s2", "reserved");
  volume->setHasWindows(true);
  expectPathsOf("last", {volume, plain("/dev/disk0s1", "last")});
}

TEST_F(DeviceManagerSplitBootTest, APartitionWithAnotherNameIsNotUsed) {
  expectPathsOf("last", {withBoot("/dev/disk0s2", "lower", "system reserved"),
                         withBoot("/dev/disk0s1", "longer", "System Reserved 1"), plain("/dev/disk0s3", "last")});
}

TEST_F(DeviceManagerSplitBootTest, APartitionWithoutABootFolderIsNotUsed) {
  const auto bare = plain("/dev/disk0s2", "bare");
  bare->setDiskName("System Reserved");
  const auto withFile = plain("/dev/disk0s1", "file");
  withFile->setDiskName("System Reserved");
  placeFile("file/BOOT");
  expectPathsOf("last", {bare, withFile, plain("/dev/disk0s3", "last")});
}

TEST_F(DeviceManagerSplitBootTest, DevicesWithoutAWholeDiskAreNotOnTheSameDisk) {
  OutputCapture output(STDOUT_FILENO);
  const Dictionary answer = manager->splitBootInfo(
      "/dev/disk9s3", {withBoot("/dev/disk8s2", "reserved"), withBoot("/dev/disk0s1", "last", "last")});
  EXPECT_EQ(output.text(), "disk NULLdisk NULL");
  EXPECT_EQ(answer.text("bootFolderPath"), mounts / "last/BOOT");
}

TEST_F(DeviceManagerSplitBootTest, ABootManagerFileDoesNotChangeTheResult) {
  const Volumes list = {withBoot("/dev/disk0s2", "reserved"), plain("/dev/disk0s1", "last")};
  expectPathsOf("reserved", list);
  placeFile("reserved/bootmgr");
  expectPathsOf("reserved", list);
}

TEST_F(DeviceManagerSplitBootTest, OnFATAndExFATTheVolumesSpellingIsReturned) {
  makeFolder("reserved/Boot");
  for (const char* type : {"msdos", "exfat"}) {
    const auto reserved = makeVolume("/dev/disk0s2", mounts / "reserved", type);
    reserved->setDiskName("System Reserved");
    const Dictionary answer = manager->splitBootInfo("/dev/disk0s3", {reserved, plain("/dev/disk0s1", "last")});
    EXPECT_EQ(answer.text("bootFolderPath"), mounts / "reserved/Boot") << type;
  }
}

TEST_F(DeviceManagerSplitBootTest, OnNTFSTheVolumesSpellingIsReturned) {
  makeFolder("reserved/Boot");
  placeFile("reserved/BootMgr");
  const auto reserved = makeVolume("/dev/disk0s2", mounts / "reserved", "ntfs");
  reserved->setDiskName("System Reserved");
  const Volumes list = {reserved, plain("/dev/disk0s1", "last")};
  const Dictionary answer = manager->splitBootInfo("/dev/disk0s3", list);
  EXPECT_EQ(answer.text("bootFolderPath"), mounts / "reserved/Boot");
  EXPECT_EQ(answer.text("bootmgrPath"), mounts / "reserved/BootMgr");
  makeFolder("reserved/BOOT");  // the exact name takes precedence over other spellings
  EXPECT_EQ(manager->splitBootInfo("/dev/disk0s3", list).text("bootFolderPath"), mounts / "reserved/BOOT");
}

TEST_F(DeviceManagerSplitBootTest, OnOtherFileSystemsOnlyTheExactNamesMatch) {
  makeFolder("reserved/Boot");
  const auto reserved = makeVolume("/dev/disk0s2", mounts / "reserved", "ext4");
  reserved->setDiskName("System Reserved");
  expectPathsOf("last", {reserved, plain("/dev/disk0s1", "last")});
}

TEST_F(DeviceManagerSplitBootTest, WithoutAReservedPartitionThePathsAreOnTheLastVolume) {
  expectPathsOf("last", {plain("/dev/disk0s3", "windows"), plain("/dev/disk1s1", "last")});
}

TEST_F(DeviceManagerSplitBootTest, AnEmptyListGivesEmptyPaths) {
  const Dictionary answer = manager->splitBootInfo("/dev/disk0s3", {});
  EXPECT_EQ(answer.text("bootFolderPath"), "");
  EXPECT_EQ(answer.text("bootmgrPath"), "");
}

TEST_F(DeviceManagerSplitBootTest, AVolumeWithoutAPathGivesEmptyPaths) {
  const Dictionary answer = manager->splitBootInfo("/dev/disk0s3", {makeVolume("/dev/disk0s2")});
  EXPECT_EQ(answer.text("bootFolderPath"), "");
  EXPECT_EQ(answer.text("bootmgrPath"), "");
}

TEST_F(DeviceManagerSplitBootTest, ATrailingSlashOfAPathIsNotDoubled) {
  makeFolder("last");
  const Dictionary answer = manager->splitBootInfo("/dev/disk0s3", {makeVolume("/dev/disk0s2", mounts / "last/")});
  EXPECT_EQ(answer.text("bootFolderPath"), mounts / "last/BOOT");
  EXPECT_EQ(answer.text("bootmgrPath"), mounts / "last/bootmgr");
}

TEST_F(DeviceManagerSplitBootTest, TheRootVolumesPathsHaveOneSlash) {
  const Dictionary answer = manager->splitBootInfo("/dev/disk0s3", {makeVolume("/dev/disk0s2", "/")});
  EXPECT_EQ(answer.text("bootFolderPath"), "/BOOT");
  EXPECT_EQ(answer.text("bootmgrPath"), "/bootmgr");
}

}  // namespace
}  // namespace vorlix::test
