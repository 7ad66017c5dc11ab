// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDDiskHelper.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/SystemLog.h>
#include <unistd.h>
#include "library/QDSDiskFunctions/Log.h"

#include "tests/unit/support/DiskBytes.h"
#include "tests/unit/support/DiskFixture.h"

namespace vorlix::test {
namespace {

constexpr size_t kSecondSlot = 446 + 16;
constexpr size_t kStartHead = 1;

class BootTypeTest : public DiskTest {
 protected:
  BootTypeTest() {
    machine.addDisk("disk0", 1 << 20, 512);
    machine.setBytes("disk0", 510, {0x55, 0xAA});
  }
  int32_t bootType(const std::string& device = "/dev/disk0") { return QDDiskHelper::init()->bootTypeForDisk(device); }
};

TEST_F(BootTypeTest, APlainProtectiveMBRIsEFI) {
  machine.setBytes("disk0", 446, {0x00, 0x00, 0x02, 0x00, 0xEE, 0xFE, 0xFF, 0xFF, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF});
  EXPECT_EQ(bootType(), 1);
}

TEST_F(BootTypeTest, ASecondPartitionThatStartsAtAnotherHeadIsLegacy) {
  machine.setBytes("disk0", kSecondSlot, {0x80, 0xFE, 0xFF, 0xFF, 0x07, 0xFE, 0xFF, 0xFF, 0, 8, 0, 0, 0, 0x10, 0, 0});
  EXPECT_EQ(bootType(), 0);
}

TEST_F(BootTypeTest, ASecondPartitionThatStartsAtHeadZeroIsEFI) {
  machine.setBytes("disk0", kSecondSlot, {0x80, 0x00, 0x01, 0x64, 0x07, 0xFE, 0xFF, 0xFF, 0, 8, 0, 0, 0, 0x10, 0, 0});
  EXPECT_EQ(bootType(), 1);
}

TEST_F(BootTypeTest, OnlyTheStartHeadOfTheSecondSlotCounts) {
  ByteVector sector(512, 0xA5);
  sector[kSecondSlot + kStartHead] = 0;
  machine.setBytes("disk0", 0, sector);
  EXPECT_EQ(bootType(), 1);
  sector.assign(512, 0);
  sector[kSecondSlot + kStartHead] = 1;
  machine.setBytes("disk0", 0, sector);
  EXPECT_EQ(bootType(), 0);
}

TEST_F(BootTypeTest, TheSignatureIsIgnored) {
  machine.setBytes("disk0", 510, {0, 0});
  EXPECT_EQ(bootType(), 1);
  machine.setBytes("disk0", kSecondSlot + kStartHead, {0x20});
  EXPECT_EQ(bootType(), 0);
}

TEST_F(BootTypeTest, ADeviceThatEndsBeforeTheByteIsEFI) {
  machine.addDisk("disk1", kSecondSlot, 512);
  machine.setBytes("disk1", 0, ByteVector(kSecondSlot, 0xFF));
  EXPECT_EQ(bootType("/dev/disk1"), 1);
  machine.addDisk("disk2", 0, 512);
  EXPECT_EQ(bootType("/dev/disk2"), 1);
}

TEST_F(BootTypeTest, ADeviceThatEndsAfterTheByteIsClassifiedByIt) {
  machine.addDisk("disk1", kSecondSlot + 2, 512);
  machine.setBytes("disk1", 0, ByteVector(kSecondSlot + 2, 0xFF));
  EXPECT_EQ(bootType("/dev/disk1"), 0);
}

TEST_F(BootTypeTest, AFailedReadMeansEFI) {
  machine.setBytes("disk0", 0, ByteVector(512, 0xFF));
  machine.fail("disk0", Operation::read, EIO);
  EXPECT_EQ(bootType(), 1);
}

TEST_F(BootTypeTest, ADeviceThatCannotBeOpenedReturnsFour) {
  machine.fail("disk0", Operation::open, EACCES);
  EXPECT_EQ(bootType(), 4);
  EXPECT_EQ(bootType("/dev/disk9"), 4);
  EXPECT_EQ(bootType(""), 4);
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(BootTypeTest, TheDeviceIsOpenedForReadingWithoutALockAndNothingIsWritten) {
  bootType();
  EXPECT_EQ(journalOf({"open "}), Lines{"open disk0 read"});
  EXPECT_EQ(machine.writes(), Lines());
}

TEST_F(BootTypeTest, EachCallLeavesTheDeviceOpen) {
  bootType();
  EXPECT_EQ(keptOpenCount(), 1U);
  bootType();
  EXPECT_EQ(keptOpenCount(), 2U);
  EXPECT_EQ(machine.openCount(), 2U);
  EXPECT_EQ(journalOf({"close "}), Lines());
}

/// Records the requested paths. No file exists.
class AskedFiles : public Files {
 public:
  std::optional<FileKind> kindOf(const std::string& path) override {
    asked.push_back(path);
    return std::nullopt;
  }
  bool isLink(const std::string&) override { return false; }
  std::optional<Lines> namesIn(const std::string&) override { return std::nullopt; }
  std::optional<std::string> contentsOf(const std::string&, size_t) override { return std::nullopt; }

  Lines asked;
};

class BootableTest : public DiskTest {
 protected:
  BootableTest() { machine.addFolder("/Volumes"); }

  // Returns the paths that are checked on an empty volume.
  Lines pathsUnder(const std::string& root) {
    const auto files = std::make_shared<AskedFiles>();
    Platform ports = machine.platform();
    ports.files = files;
    const ScopedPlatform scope(ports);
    EXPECT_FALSE(bootable(root));
    return files->asked;
  }
  bool bootable(const std::string& root, const std::string& type = "") {
    const auto volume = QDVolume::init();
    volume->setFilePath(root);
    volume->setFileSystemType(type);
    return QDDiskHelper::init()->isBootable(volume);
  }
  bool bootableWith(const std::string& file) {
    machine.addFile("/Volumes/volume/" + file, "x");
    return bootable("/Volumes/volume");
  }
};

TEST_F(BootableTest, TheCheckIsLoggedInTheSystemsLog) {
  bootable("/Volumes/volume");
  EXPECT_EQ(machine.journal(), Lines{"system log Vorlix: Checking if bootable"});
  EXPECT_EQ(log(), "");
}

TEST_F(BootableTest, TheFilesAreCheckedInThisOrder) {
  const Lines expected = {"/v/System/Library", "/v/com.apple.recovery.boot/boot.efi", "/v/Windows/System32",
                          "/v/ntldr"};
  EXPECT_EQ(pathsUnder("/v"), expected);
  EXPECT_EQ(pathsUnder("/v/"), expected);
}

TEST_F(BootableTest, TheRootVolumesPathsHaveOneSlash) {
  const Lines expected = {"/System/Library", "/com.apple.recovery.boot/boot.efi", "/Windows/System32", "/ntldr"};
  EXPECT_EQ(pathsUnder("/"), expected);
}

TEST_F(BootableTest, OnAWindowsVolumeAnySpellingMatches) {
  machine.addFolder("/Volumes/volume/WINDOWS/system32");
  for (const char* type : {"ntfs", "NTFS", "msdos", "MS-DOS (FAT32)", "exfat", "ExFAT"}) {
    EXPECT_TRUE(bootable("/Volumes/volume", type)) << type;
  }
  for (const char* type : {"", "apfs", "ext4"}) EXPECT_FALSE(bootable("/Volumes/volume", type)) << type;
}

TEST_F(BootableTest, AnEmptyVolumeIsNotBootable) {
  machine.addFolder("/Volumes/volume");
  EXPECT_FALSE(bootable("/Volumes/volume"));
}

TEST_F(BootableTest, AMissingVolumeIsNotBootable) {
  EXPECT_FALSE(bootable("/Volumes/nowhere"));
}

TEST_F(BootableTest, TheSystemLibraryFolderIsEnough) {
  EXPECT_TRUE(bootableWith("System/Library/x"));
}

TEST_F(BootableTest, TheRecoveryBootLoaderIsEnough) {
  EXPECT_TRUE(bootableWith("com.apple.recovery.boot/boot.efi"));
}

TEST_F(BootableTest, TheWindowsSystemFolderIsEnough) {
  EXPECT_TRUE(bootableWith("Windows/System32/x"));
}

TEST_F(BootableTest, TheLegacyLoaderIsEnough) {
  EXPECT_TRUE(bootableWith("ntldr"));
}

TEST_F(BootableTest, AFileInPlaceOfAFolderIsEnough) {
  EXPECT_TRUE(bootableWith("Windows/System32"));
}

TEST_F(BootableTest, SimilarPathsAreNotEnough) {
  EXPECT_FALSE(bootableWith("bootmgr"));
  EXPECT_FALSE(bootableWith("System/x"));
  EXPECT_FALSE(bootableWith("com.apple.recovery.boot/x"));
  EXPECT_FALSE(bootableWith("Windows/x"));
  EXPECT_FALSE(bootableWith("boot.efi"));
}

TEST_F(BootableTest, WithoutAPathTheWorkingFolderIsChecked) {
  EXPECT_FALSE(QDDiskHelper::init()->isBootable(QDVolume::init()));
  EXPECT_FALSE(QDDiskHelper::init()->isBootable(nullptr));
  machine.addFile("/ntldr");
  EXPECT_TRUE(QDDiskHelper::init()->isBootable(QDVolume::init()));
  EXPECT_TRUE(QDDiskHelper::init()->isBootable(nullptr));
}

class SystemLogLineTest : public FlatTest {};

TEST_F(SystemLogLineTest, EachLineFeedIsFollowedByTheName) {
  logToSystem("one\ntwo\n\nthree\n");
  EXPECT_EQ(machine.journal(), Lines{"system log Vorlix: one\nVorlixtwo\nVorlix\nVorlixthree\nVorlix"});
}

TEST_F(SystemLogLineTest, PlaceholdersAreNotExpanded) {
  logToSystem("100 %s %n");
  EXPECT_EQ(machine.journal(), Lines{"system log Vorlix: 100 %s %n"});
}

}  // namespace
}  // namespace vorlix::test
