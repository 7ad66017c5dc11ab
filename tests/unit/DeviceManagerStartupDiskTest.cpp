// SPDX-License-Identifier: Apache-2.0
//
// A volume's way of starting, and the selection of the startup disk.
#include <cerrno>
#include <ostream>

#include "tests/unit/support/DeviceManagerFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t kSecondSlotsStartHead = 446 + 16 + 1;
constexpr const char* kNotRoot = "Process not running as root so not attempting to set startup disk!";

class DeviceManagerStartupDiskTest : public DeviceManagerTest {
 protected:
  DeviceManagerStartupDiskTest() {
    addDevice("disk0s1");
    addDevice("disk0s3");
  }

  void makeLegacy() { machine.setBytes("disk0", kSecondSlotsStartHead, {1}); }

  std::shared_ptr<QDVolume> volumeOf(const std::string& type, const std::string& path = "/Volumes/X") const {
    return makeVolume("/dev/disk0s3", path, type);
  }

  Lines systemLog() const { return journalOf({"system log "}); }
  Lines shell() const { return journalOf({"shell "}); }

  const std::shared_ptr<QDVolume> windows = volumeOf("ntfs");
};

// ----------------------------------------------------------------------------------------------------- way of starting

TEST_F(DeviceManagerStartupDiskTest, AVolumeOfALegacyDiskStartsByLegacyBoot) {
  makeLegacy();
  for (const char* type : {"ntfs", "msdos", "exfat"}) EXPECT_EQ(manager->bootTypeForDisk(volumeOf(type)), 0U) << type;
  EXPECT_EQ(systemLog(), Lines(3, "system log Vorlix: WE HAVE LEGACY BOOT"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerStartupDiskTest, AVolumeOfAnEFIDiskStartsByEFI) {
  EXPECT_EQ(manager->bootTypeForDisk(windows), 1U);
  EXPECT_THAT(systemLog(), ElementsAre("system log Vorlix: WE HAVE EFI BOOT"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerStartupDiskTest, AVolumeOfAnUnreadableDiskIsUnknown) {
  machine.fail("disk0", Operation::open, EACCES);
  EXPECT_EQ(manager->bootTypeForDisk(windows), 4U);
  EXPECT_THAT(lines(), ElementsAre("Could not detect disk startup type"));
  EXPECT_EQ(systemLog(), Lines());
}

TEST_F(DeviceManagerStartupDiskTest, AVolumeWithoutAWholeDiskIsUnknown) {
  OutputCapture output(STDOUT_FILENO);
  EXPECT_EQ(manager->bootTypeForDisk(makeVolume("/dev/disk9s1", "/Volumes/X", "exfat")), 4U);
  EXPECT_EQ(manager->bootTypeForDisk(makeVolume(std::nullopt, "/Volumes/X", "msdos")), 4U);
  EXPECT_EQ(lines(), Lines(2, "Could not detect disk startup type"));
}

TEST_F(DeviceManagerStartupDiskTest, MacVolumesStartFromThemselvesWhateverTheDisk) {
  EXPECT_EQ(manager->bootTypeForDisk(volumeOf("hfs")), 2U);
  makeLegacy();
  EXPECT_EQ(manager->bootTypeForDisk(volumeOf("apfs")), 2U);
  EXPECT_EQ(lines(), Lines(2, "Found HFS or APFS disk"));
  EXPECT_EQ(systemLog(), Lines());
}

TEST_F(DeviceManagerStartupDiskTest, OnlyTheExactTypesAreMacVolumes) {
  for (const char* type : {"HFS", "hfsplus", "APFS", "apfs ", ""}) {
    EXPECT_EQ(manager->bootTypeForDisk(volumeOf(type)), 1U) << type;
  }
  EXPECT_EQ(manager->bootTypeForDisk(makeVolume("/dev/disk0s3", "/Volumes/X")), 1U);
}

TEST_F(DeviceManagerStartupDiskTest, TheRunningSystemsVolumeTakesPrecedence) {
  for (const char* type : {"apfs", "hfs", "ntfs"}) EXPECT_EQ(manager->bootTypeForDisk(volumeOf(type, "/")), 3U) << type;
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_EQ(systemLog(), Lines());
  EXPECT_EQ(manager->bootTypeForDisk(volumeOf("ntfs", "//")), 1U);
  EXPECT_EQ(manager->bootTypeForDisk(makeVolume("/dev/disk0s3", std::nullopt, "ntfs")), 1U);
}

TEST_F(DeviceManagerStartupDiskTest, TheWholeDiskIsReadInEveryCase) {
  static_cast<void>(manager->bootTypeForDisk(volumeOf("ntfs")));
  static_cast<void>(manager->bootTypeForDisk(volumeOf("hfs")));
  static_cast<void>(manager->bootTypeForDisk(volumeOf("apfs", "/")));
  EXPECT_EQ(journalOf({"open "}), Lines(3, "open disk0 read"));
  EXPECT_EQ(machine.writes(), Lines());
}

// ------------------------------------------------------------------------------------------------------------ commands

struct Selection {
  uint32_t code;
  const char* device;  ///< the device to bless
  Lines messages;      ///< after the first message
  int flags;           ///< number of "-nextonly" flags if next-only is requested
};

void PrintTo(const Selection& selection, std::ostream* stream) {
  *stream << "code " << selection.code;
}

class DeviceManagerSelectionTest : public DeviceManagerStartupDiskTest, public testing::WithParamInterface<Selection> {
 protected:
  static std::string command(int flags) {
    std::string text = std::string("/usr/sbin/bless -device ") + GetParam().device + " -setBoot";
    while (flags-- > 0) text += " -nextonly";
    return text;
  }
  /// For a permanent choice there is one flag fewer.
  static int permanentFlags() { return GetParam().flags - 1; }

  static Lines messages(const std::string& last) {
    Lines expected = {"Setting startup disk to device /dev/disk0s3"};
    expected.insert(expected.end(), GetParam().messages.begin(), GetParam().messages.end());
    expected.push_back(last);
    return expected;
  }
};

TEST_P(DeviceManagerSelectionTest, RootRunsTheCommandForTheNextStart) {
  machine.setRealUserID(0);
  EXPECT_TRUE(manager->selectStartupDisk(windows, GetParam().code, true));
  const std::string expected = command(GetParam().flags);
  EXPECT_EQ(shell(), Lines{"shell " + expected});
  EXPECT_EQ(lines(), messages("Running command \"" + expected + "\""));
}

TEST_P(DeviceManagerSelectionTest, RootRunsTheCommandForAPermanentChoice) {
  machine.setRealUserID(0);
  EXPECT_TRUE(manager->selectStartupDisk(windows, GetParam().code, false));
  const std::string expected = command(permanentFlags());
  EXPECT_EQ(shell(), Lines{"shell " + expected});
  EXPECT_EQ(lines(), messages("Running command \"" + expected + "\""));
}

TEST_P(DeviceManagerSelectionTest, TheShortFormIsForTheNextStart) {
  machine.setRealUserID(0);
  EXPECT_TRUE(manager->selectStartupDisk(windows, GetParam().code));
  EXPECT_EQ(shell(), Lines{"shell " + command(GetParam().flags)});
}

TEST_P(DeviceManagerSelectionTest, ARemovableVolumeIsChosenPermanently) {
  machine.setRealUserID(0);
  windows->setIsRemovable(true);
  EXPECT_TRUE(manager->selectStartupDisk(windows, GetParam().code, true));
  EXPECT_TRUE(manager->selectStartupDisk(windows, GetParam().code));
  EXPECT_EQ(shell(), Lines(2, "shell " + command(permanentFlags())));
}

TEST_P(DeviceManagerSelectionTest, AnOrdinaryUserRunsNothingAndGetsAMessage) {
  EXPECT_TRUE(manager->selectStartupDisk(windows, GetParam().code, true));
  EXPECT_EQ(shell(), Lines());
  EXPECT_EQ(lines(), messages(kNotRoot));
}

TEST_P(DeviceManagerSelectionTest, TheToolsFailureIsNotReported) {
  machine.setRealUserID(0);
  machine.setShellStatus(256);
  EXPECT_TRUE(manager->selectStartupDisk(windows, GetParam().code, true));
  EXPECT_EQ(shell().size(), 1U);
}

TEST_P(DeviceManagerSelectionTest, OnlyTheVolumeEFICodeUsesTheSystemsLog) {
  static_cast<void>(manager->selectStartupDisk(windows, GetParam().code, true));
  Lines expected;
  if (GetParam().code == 5) {
    // Logged before the flag that every choice for the next start adds.
    expected = {"system log Vorlix: Selecting type Volume EFI",
                "system log Vorlix: Command is /usr/sbin/bless -device /dev/disk0s3 -setBoot -nextonly"};
  }
  EXPECT_EQ(systemLog(), expected);
}

INSTANTIATE_TEST_SUITE_P(Codes, DeviceManagerSelectionTest,
                         testing::Values(Selection{0, "/dev/disk0s3", {"Setting boot disk to legacy volume."}, 1},
                                         Selection{1, "/dev/disk0s1", {"Setting boot disk to EFI volume."}, 1},
                                         Selection{2, "/dev/disk0s3", {"Setting boot disk to Mac volume."}, 1},
                                         Selection{4,
                                                   "/dev/disk0s1",
                                                   {"Disk type unknown so selecting EFI style booting.",
                                                    "Setting boot disk to EFI volume."},
                                                   1},
                                         Selection{5, "/dev/disk0s3", {}, 2}),
                         [](const auto& tested) { return "Code" + std::to_string(tested.param.code); });

// ----------------------------------------------------------------------------------------------------- refused choices

TEST_F(DeviceManagerStartupDiskTest, TheRunningSystemsVolumeIsNotSelected) {
  machine.setRealUserID(0);
  EXPECT_FALSE(manager->selectStartupDisk(windows, 3, true));
  EXPECT_THAT(lines(), ElementsAre("Setting startup disk to device /dev/disk0s3"));
  EXPECT_EQ(shell(), Lines());
  EXPECT_EQ(systemLog(), Lines());
}

TEST_F(DeviceManagerStartupDiskTest, OtherCodesAreRefused) {
  machine.setRealUserID(0);
  for (const uint32_t code : {6U, 7U, 255U, 256U, 0x80000000U, 0xFFFFFFFFU}) {
    delegate->lines.clear();
    EXPECT_FALSE(manager->selectStartupDisk(windows, code, true)) << code;
    EXPECT_THAT(lines(), ElementsAre("Setting startup disk to device /dev/disk0s3",
                                     "Unknown disktype. Aborting set boot disk."));
  }
  EXPECT_EQ(shell(), Lines());
}

TEST_F(DeviceManagerStartupDiskTest, OnlyUserIDZeroIsRoot) {
  for (const uint32_t user : {1U, 501U, 0xFFFFFFFFU}) {
    machine.setRealUserID(user);
    EXPECT_TRUE(manager->selectStartupDisk(windows, 1, true));
    EXPECT_EQ(lastLine(), kNotRoot);
  }
  EXPECT_EQ(shell(), Lines());
}

TEST_F(DeviceManagerStartupDiskTest, ADeviceNameWithSpecialCharactersIsNotPassedToTheShell) {
  machine.setRealUserID(0);
  for (const char* name : {"disk7; reboot #s1", "$(reboot)s1", "`reboot`s1", "a b", "x|ys1", "x&s1", "x>ys1", "x<ys1",
                           "x\ny", "x'y", "x\"y", "x\\y", "x*", "x?", "[x]", "{x,y}", "~x\t", "(null)", "$HOME"}) {
    machine.addDisk(name, 1 << 20, 512);
    for (const uint32_t code : {0U, 1U, 2U, 4U, 5U}) {
      const auto volume = makeVolume(std::string("/dev/") + name, "/Volumes/X", "ntfs");
      EXPECT_FALSE(manager->selectStartupDisk(volume, code, true)) << name << " " << code;
      EXPECT_EQ(lastLine(), "Not setting startup disk: the device's name is not plain");
    }
  }
  EXPECT_EQ(shell(), Lines());
}

TEST_F(DeviceManagerStartupDiskTest, AnEmptyDeviceNameIsNotPassedToTheShell) {
  machine.setRealUserID(0);
  OutputCapture output(STDOUT_FILENO);
  for (const uint32_t code : {0U, 1U, 2U, 4U, 5U}) {
    EXPECT_FALSE(manager->selectStartupDisk(makeVolume(""), code, true)) << code;
  }
  EXPECT_EQ(shell(), Lines());  // the tool would use its next option as the device
}

TEST_F(DeviceManagerStartupDiskTest, AnOrdinaryUserRunsNothingWhateverTheDevicesName) {
  machine.addDisk("disk7; reboot", 1 << 20, 512);
  EXPECT_TRUE(manager->selectStartupDisk(makeVolume("/dev/disk7; reboot"), 0, true));
  EXPECT_EQ(lastLine(), kNotRoot);
  EXPECT_EQ(shell(), Lines());
}

TEST_F(DeviceManagerStartupDiskTest, APlainDeviceNameIsPassedToTheShell) {
  machine.setRealUserID(0);
  for (const char* name : {"nvme0n1p3", "disk12s34", "mapper/vg-root_1"}) {
    machine.addDisk(name, 1 << 20, 512);
    machine.clearJournal();
    EXPECT_TRUE(manager->selectStartupDisk(makeVolume(std::string("/dev/") + name), 0, false));
    EXPECT_EQ(shell(), Lines{std::string("shell /usr/sbin/bless -device /dev/") + name + " -setBoot"});
  }
}

TEST_F(DeviceManagerStartupDiskTest, AnAbsentDeviceIsNullInTheMessageAndNothingRuns) {
  machine.setRealUserID(0);
  for (const uint32_t code : {0U, 1U, 2U, 4U, 5U}) {
    delegate->lines.clear();
    EXPECT_FALSE(manager->selectStartupDisk(makeVolume(std::nullopt), code, true)) << code;
    EXPECT_EQ(line(0), "Setting startup disk to device (null)");
  }
  EXPECT_EQ(shell(), Lines());
}

TEST_F(DeviceManagerStartupDiskTest, WithoutAWholeDiskThereIsNoEFISliceToBless) {
  OutputCapture output(STDOUT_FILENO);
  machine.setRealUserID(0);
  EXPECT_FALSE(manager->selectStartupDisk(makeVolume("/dev/disk9s3"), 1, true));
  EXPECT_EQ(shell(), Lines());
  EXPECT_TRUE(manager->selectStartupDisk(makeVolume("/dev/disk9s3"), 0, true));
  EXPECT_THAT(shell(), ElementsAre("shell /usr/sbin/bless -device /dev/disk9s3 -setBoot -nextonly"));
}

// -------------------------------------------------------------------------------------------- the next start, detected

TEST_F(DeviceManagerStartupDiskTest, TheNextStartUsesTheVolumesBootType) {
  machine.setRealUserID(0);
  makeLegacy();
  EXPECT_TRUE(manager->selectNextOnlyStartupDisk(windows));
  EXPECT_THAT(shell(), ElementsAre("shell /usr/sbin/bless -device /dev/disk0s3 -setBoot -nextonly"));
  EXPECT_THAT(systemLog(), ElementsAre("system log Vorlix: WE HAVE LEGACY BOOT"));
  EXPECT_THAT(lines(), ElementsAre("Setting startup disk to device /dev/disk0s3", "Setting boot disk to legacy volume.",
                                   "Running command \"/usr/sbin/bless -device /dev/disk0s3 -setBoot -nextonly\""));
}

TEST_F(DeviceManagerStartupDiskTest, TheNextStartOfAMacVolumeUsesTheVolumeItself) {
  machine.setRealUserID(0);
  EXPECT_TRUE(manager->selectNextOnlyStartupDisk(volumeOf("apfs")));
  EXPECT_THAT(shell(), ElementsAre("shell /usr/sbin/bless -device /dev/disk0s3 -setBoot -nextonly"));
  EXPECT_THAT(lines(), ElementsAre("Found HFS or APFS disk", "Setting startup disk to device /dev/disk0s3",
                                   "Setting boot disk to Mac volume.",
                                   "Running command \"/usr/sbin/bless -device /dev/disk0s3 -setBoot -nextonly\""));
}

TEST_F(DeviceManagerStartupDiskTest, TheNextStartOfAnUnknownDiskUsesItsFirstSlice) {
  machine.setRealUserID(0);
  machine.fail("disk0", Operation::open, EACCES);
  for (const char* type : {"exfat", "msdos"}) {
    machine.clearJournal();
    EXPECT_TRUE(manager->selectNextOnlyStartupDisk(volumeOf(type)));
    EXPECT_THAT(shell(), ElementsAre("shell /usr/sbin/bless -device /dev/disk0s1 -setBoot -nextonly"));
  }
}

TEST_F(DeviceManagerStartupDiskTest, TheRunningSystemsVolumeIsNotSelectedForTheNextStart) {
  machine.setRealUserID(0);
  EXPECT_FALSE(manager->selectNextOnlyStartupDisk(volumeOf("apfs", "/")));
  EXPECT_THAT(lines(), ElementsAre("Setting startup disk to device /dev/disk0s3"));
  EXPECT_EQ(shell(), Lines());
}

TEST_F(DeviceManagerStartupDiskTest, TheNextStartOfARemovableVolumeIsPermanent) {
  machine.setRealUserID(0);
  windows->setIsRemovable(true);
  EXPECT_TRUE(manager->selectNextOnlyStartupDisk(windows));
  EXPECT_THAT(shell(), ElementsAre("shell /usr/sbin/bless -device /dev/disk0s1 -setBoot"));
}

}  // namespace
}  // namespace vorlix::test
