// SPDX-License-Identifier: Apache-2.0
//
// The files for legacy booting, set up at the root of a simulated volume.
#include <Vorlix/QDSUtilities.h>
#include <Vorlix/foundation/URL.h>
#include <Vorlix/platform/FileCopy.h>
#include <Vorlix/platform/Files.h>
#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "tests/unit/support/DiskFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

/// Copies all items except one.
class FailingCopies : public FileCopy {
 public:
  FailingCopies(std::shared_ptr<FileCopy> copies, std::string refused)
      : copies_(std::move(copies)), refused_(std::move(refused)) {}

  std::optional<std::string> copyItem(const std::string& source, const std::string& destination) override {
    ++asked;
    if (source == refused_) return "No space left on device";
    return copies_->copyItem(source, destination);
  }

  int asked = 0;

 private:
  std::shared_ptr<FileCopy> copies_;
  std::string refused_;
};

class LegacyBootTest : public DiskTest {
 protected:
  LegacyBootTest() {
    makeFolder("volume");
    makeFile("my store", {'s', 't', 'o', 'r', 'e'});
  }

  // Paths are relative to /Volumes.
  void makeFolder(const std::string& name) { machine.addFolder("/Volumes/" + name); }
  void makeFile(const std::string& name, const ByteVector& bytes) {
    machine.addFile("/Volumes/" + name, std::string(bytes.begin(), bytes.end()));
  }

  void addPCAT() {
    makeFolder("volume/Windows/Boot/PCAT/de-DE");
    makeFile("volume/Windows/Boot/PCAT/memtest.exe", {'m', 'e', 'm'});
    makeFile("volume/Windows/Boot/PCAT/de-DE/bootmgr.mui", {'m', 'u', 'i'});
  }
  void addBootmgr() {
    makeFolder("volume/Windows/Boot/PCAT");
    makeFile("volume/Windows/Boot/PCAT/bootmgr", {'m', 'g', 'r'});
  }
  void addFonts() {
    makeFolder("volume/Windows/Boot/Fonts");
    makeFile("volume/Windows/Boot/Fonts/wgl4_boot.ttf", {'t', 't', 'f'});
  }
  void addAll() {
    addPCAT();
    addBootmgr();
    addFonts();
  }

  int32_t setUp() const { return QDSUtilities::setupMBRBootFilesForDevice(URL::fileURLWithPath(volume), bcd); }

  std::string content(const std::string& name) const {
    return machine.contentsOf(volume + "/" + name).value_or("(no file)");
  }
  bool exists(const std::string& name) const { return machine.holdsItem(volume + "/" + name); }
  bool isEmpty(const std::string& path) const {
    const auto names = machine.platform().files->namesIn(path);
    return names && names->empty();
  }

  // Sources, destinations and messages in the order of the steps.
  std::string start() const { return "Setting up legacy booting to " + volume + "\n"; }
  std::string sourceOf(int row) const {
    if (row == 3) return bcd;
    return volume + (row == 1 ? "/Windows/Boot/PCAT" : row == 2 ? "/Windows/Boot/Fonts" : "/Windows/Boot/PCAT/bootmgr");
  }
  std::string destinationOf(int row) const {
    return volume + (row == 1 ? "/boot" : row == 2 ? "/boot/Fonts" : row == 3 ? "/boot/BCD" : "/bootmgr");
  }
  std::string copying(int row) const { return "copying " + sourceOf(row) + " to " + destinationOf(row) + "\n"; }
  std::string skipping(int row) const { return sourceOf(row) + " does not exist, skipping\n"; }
  std::string failed(int row, const std::string& reason) const {
    return "Error copying " + sourceOf(row) + " to " + destinationOf(row) + " with error " + reason + "\n";
  }
  Lines copies() const { return journalOf({"copy "}); }
  std::string copyLine(int row) const { return "copy " + sourceOf(row) + " " + destinationOf(row); }

  const std::string volume = "/Volumes/volume";
  std::string bcd = "/Volumes/my store";
};

// --------------------------------------------------------------------------------------------------- all sources exist

TEST_F(LegacyBootTest, FoldersAndFilesAreCopiedInOrder) {
  addAll();
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + copying(1) + copying(2) + copying(3) + copying(4));
  EXPECT_THAT(machine.journal(), ElementsAre(copyLine(1), copyLine(2), copyLine(3), copyLine(4)));
  EXPECT_EQ(content("boot/memtest.exe"), "mem");
  EXPECT_EQ(content("boot/de-DE/bootmgr.mui"), "mui");
  EXPECT_EQ(content("boot/bootmgr"), "mgr");
  EXPECT_EQ(content("boot/Fonts/wgl4_boot.ttf"), "ttf");
  EXPECT_EQ(content("boot/BCD"), "store");
  EXPECT_EQ(content("bootmgr"), "mgr");
  // The sources still exist.
  EXPECT_EQ(content("Windows/Boot/PCAT/bootmgr"), "mgr");
  EXPECT_EQ(machine.contentsOf(bcd), "store");
}

TEST_F(LegacyBootTest, NothingIsCopiedThroughALinkInPlaceOfTheFolder) {
  addAll();
  makeFolder("host");
  machine.addLink(volume + "/boot", "/Volumes/host");
  EXPECT_EQ(setUp(), -1);
  EXPECT_EQ(log(), start() + copying(2) + failed(2, "boot is a link"));
  EXPECT_TRUE(isEmpty("/Volumes/host"));
  EXPECT_FALSE(exists("bootmgr"));
}

TEST_F(LegacyBootTest, NothingIsCopiedThroughACopiedLink) {
  addAll();
  makeFolder("host");
  machine.addLink(volume + "/Windows/Boot/PCAT", "/Volumes/host");
  EXPECT_EQ(setUp(), -1);
  EXPECT_TRUE(isEmpty("/Volumes/host"));
}

TEST_F(LegacyBootTest, SecondRunFindsEverythingAndCopiesNothing) {
  addAll();
  EXPECT_EQ(setUp(), 0);
  makeFile("my store", {'n', 'e', 'w'});
  forgetLog();
  machine.clearJournal();
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start());
  EXPECT_THAT(machine.journal(), IsEmpty());
  EXPECT_EQ(content("boot/BCD"), "store");
}

TEST_F(LegacyBootTest, ItemNamedBOOTMeansThatTheVolumeIsAlreadySetUp) {
  addAll();
  for (const bool asFolder : {true, false}) {
    forgetLog();
    if (asFolder) {
      makeFolder("volume/BOOT");
    } else {
      makeFile("volume/BOOT", {});
    }
    EXPECT_EQ(setUp(), 0);
    EXPECT_EQ(log(), start());
    EXPECT_THAT(machine.journal(), IsEmpty());
    EXPECT_FALSE(exists("bootmgr"));
    machine.removeItem(volume + "/BOOT");
  }
}

TEST_F(LegacyBootTest, ExistingDestinationsAreKeptSilently) {
  addAll();
  makeFolder("volume/boot");
  makeFile("volume/boot/BCD", {'o', 'l', 'd'});
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + copying(2) + copying(4));
  EXPECT_THAT(machine.journal(), ElementsAre(copyLine(2), copyLine(4)));
  EXPECT_EQ(content("boot/BCD"), "old");
  EXPECT_FALSE(exists("boot/memtest.exe"));
}

// Windows ignores case. The folder of a mirrored FAT volume and some drivers for NTFS do not.
TEST_F(LegacyBootTest, OnWindowsVolumesTheFolderCountsInAnySpelling) {
  addAll();
  machine.addDisk("disk0", 100 * 512, 512);
  addVolume("disk0", volume, true);  // FAT
  for (const std::string spelling : {"boot", "Boot", "BOOT"}) {
    forgetLog();
    makeFolder("volume/" + spelling);
    EXPECT_EQ(setUp(), 0);
    EXPECT_EQ(log(), start());
    EXPECT_THAT(copies(), IsEmpty());
    EXPECT_TRUE(isEmpty(volume + "/" + spelling));
    EXPECT_FALSE(exists("bootmgr"));
    machine.removeItem(volume + "/" + spelling);
  }
}

TEST_F(LegacyBootTest, OnAVolumeThatIgnoresCaseTheOwnBootFolderEndsASecondRun) {
  machine.ignoreCase(volume);
  addAll();
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + copying(1) + copying(2) + copying(3) + copying(4));
  forgetLog();
  machine.removeItem(volume + "/bootmgr");
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start());
}

TEST_F(LegacyBootTest, OnWindowsVolumesNamesKeepTheVolumesSpelling) {
  makeFolder("volume/WINDOWS/BOOT/PCAT");
  makeFile("volume/WINDOWS/BOOT/PCAT/BOOTMGR", {'m', 'g', 'r'});
  makeFile("volume/BOOTMGR", {'o', 'l', 'd'});
  machine.addDisk("disk0", 100 * 512, 512);
  addVolume("disk0", volume, true);
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + "copying " + volume + "/WINDOWS/BOOT/PCAT to " + volume + "/boot\n" +
                       skipping(2).replace(0, sourceOf(2).size(), volume + "/WINDOWS/BOOT/Fonts") + copying(3));
  EXPECT_EQ(content("BOOTMGR"), "old");
  EXPECT_FALSE(exists("bootmgr"));
}

TEST_F(LegacyBootTest, OnOtherVolumesOnlyExactNamesMatch) {
  addAll();
  makeFolder("volume/Boot");
  machine.addDisk("disk0", 100 * 512, 512);
  SimulatedVolume other;
  other.kind = "ext4";
  other.mountPath = volume;
  other.mounted = true;
  machine.setVolume("disk0", other);
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + copying(1) + copying(2) + copying(3) + copying(4));
}

TEST_F(LegacyBootTest, FontsInsideThePCATFolderAreCopiedWithIt) {
  addAll();
  makeFolder("volume/Windows/Boot/PCAT/Fonts");
  makeFile("volume/Windows/Boot/PCAT/Fonts/inner.ttf", {'i'});
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + copying(1) + copying(3) + copying(4));
  EXPECT_EQ(content("boot/Fonts/inner.ttf"), "i");
  EXPECT_FALSE(exists("boot/Fonts/wgl4_boot.ttf"));
}

// --------------------------------------------------------------------------------- missing sources and the folder flag

TEST_F(LegacyBootTest, MissingFontsAfterTheFolderAreSkipped) {
  addPCAT();
  addBootmgr();
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + copying(1) + skipping(2) + copying(3) + copying(4));
  EXPECT_EQ(content("boot/BCD"), "store");
  EXPECT_EQ(content("bootmgr"), "mgr");
}

TEST_F(LegacyBootTest, MissingStoreAfterTheFontsIsSkipped) {
  addAll();
  machine.removeItem(bcd);
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + copying(1) + copying(2) + skipping(3) + copying(4));
  EXPECT_FALSE(exists("boot/BCD"));
}

TEST_F(LegacyBootTest, MissingStoreAfterMissingFontsIsSkipped) {
  addPCAT();
  addBootmgr();
  machine.removeItem(bcd);
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + copying(1) + skipping(2) + skipping(3) + copying(4));
}

TEST_F(LegacyBootTest, EverythingMissingAfterTheFolderIsSkipped) {
  addPCAT();
  machine.removeItem(bcd);
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + copying(1) + skipping(2) + skipping(3) + skipping(4));
  EXPECT_THAT(machine.journal(), ElementsAre(copyLine(1)));
  EXPECT_FALSE(exists("bootmgr"));
}

TEST_F(LegacyBootTest, MissingFileAfterAFileIsCopiedAndFails) {
  addPCAT();
  addFonts();
  machine.failCopy(sourceOf(4), "There is no such file.");
  EXPECT_EQ(setUp(), -1);
  EXPECT_EQ(log(), start() + copying(1) + copying(2) + copying(3) + copying(4) + failed(4, "There is no such file."));
  EXPECT_EQ(content("boot/BCD"), "store");  // earlier copies stay
  EXPECT_FALSE(exists("bootmgr"));
}

TEST_F(LegacyBootTest, CopyOfAMissingFileFailsWithTheCopysReason) {
  addPCAT();
  addFonts();
  EXPECT_EQ(setUp(), -1);
  const std::string before = start() + copying(1) + copying(2) + copying(3) + copying(4);
  ASSERT_THAT(log(), StartsWith(before + failed(4, "").substr(0, failed(4, "").size() - 1)));
  EXPECT_THAT(log().substr(before.size()), MatchesRegex("Error copying [^\n]+ with error [^\n]+\n"));
}

TEST_F(LegacyBootTest, MissingFileAfterAStoreThatIsAFolderIsSkipped) {
  addPCAT();
  addFonts();
  bcd = "/Volumes/store folder";
  makeFolder("store folder");
  makeFile("store folder/inside", {'i'});
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + copying(1) + copying(2) + copying(3) + skipping(4));
  EXPECT_EQ(content("boot/BCD/inside"), "i");
}

TEST_F(LegacyBootTest, MissingFileAfterAFileIsIgnoredIfItsDestinationExists) {
  addPCAT();
  addFonts();
  makeFile("volume/bootmgr", {'o', 'l', 'd'});
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + copying(1) + copying(2) + copying(3));
  EXPECT_EQ(content("bootmgr"), "old");
}

TEST_F(LegacyBootTest, SourceIsCheckedBeforeTheDestination) {
  addPCAT();
  makeFolder("volume/Windows/Boot/PCAT/Fonts");  // so that boot/Fonts exists when the fonts are checked
  addBootmgr();
  EXPECT_EQ(setUp(), 0);
  EXPECT_EQ(log(), start() + copying(1) + skipping(2) + copying(3) + copying(4));
}

TEST_F(LegacyBootTest, FlagIsSetByASourceWhoseDestinationExistsToo) {
  // The store and its destination exist, so nothing is copied. But the source before bootmgr was a file.
  addPCAT();
  makeFile("volume/Windows/Boot/PCAT/BCD", {'p'});
  addFonts();
  machine.failCopy(sourceOf(4), "gone");
  EXPECT_EQ(setUp(), -1);
  EXPECT_EQ(log(), start() + copying(1) + copying(2) + copying(4) + failed(4, "gone"));
  EXPECT_EQ(content("boot/BCD"), "p");
}

TEST_F(LegacyBootTest, FileInPlaceOfTheFirstFolderMakesAMissingOneFail) {
  makeFolder("volume/Windows/Boot");
  makeFile("volume/Windows/Boot/PCAT", {'f'});
  machine.failCopy(sourceOf(2), "gone");
  EXPECT_EQ(setUp(), -1);
  EXPECT_EQ(log(), start() + copying(1) + copying(2) + failed(2, "gone"));
  EXPECT_EQ(content("boot"), "f");
}

TEST_F(LegacyBootTest, MissingFirstSourceIsCopiedBecauseNoFolderPrecedesIt) {
  addFonts();
  machine.failCopy(sourceOf(1), "gone");
  EXPECT_EQ(setUp(), -1);
  EXPECT_EQ(log(), start() + copying(1) + failed(1, "gone"));
  EXPECT_FALSE(exists("boot"));
}

// ------------------------------------------------------------------------------------------------------- failed copies

TEST_F(LegacyBootTest, FailedCopyStopsAtOnceAndASecondRunCopiesTheRest) {
  for (int row = 1; row <= 4; ++row) {
    machine.removeItem(volume);
    addAll();
    forgetLog();
    std::string expected = start();
    for (int before = 1; before <= row; ++before) expected += copying(before);
    {
      Platform ports = machine.platform();
      const auto copies = std::make_shared<FailingCopies>(ports.fileCopy, sourceOf(row));
      ports.fileCopy = copies;
      const ScopedPlatform scope(ports);
      EXPECT_EQ(setUp(), -1) << row;
      EXPECT_EQ(copies->asked, row);
    }
    EXPECT_EQ(log(), expected + failed(row, "No space left on device"));
    for (int later = row; later <= 4; ++later) EXPECT_FALSE(machine.holdsItem(destinationOf(later))) << later;

    forgetLog();
    EXPECT_EQ(setUp(), 0) << row;
    std::string rest = start();
    for (int later = row; later <= 4; ++later) rest += copying(later);
    EXPECT_EQ(log(), rest);
    EXPECT_EQ(content("bootmgr"), "mgr");
    EXPECT_EQ(content("boot/BCD"), "store");
  }
}

// ---------------------------------------------------------------------------------------------------- without a volume

TEST_F(LegacyBootTest, AbsentVolumeIsLoggedAndNothingIsDone) {
  EXPECT_EQ(QDSUtilities::setupMBRBootFilesForDevice(std::nullopt, bcd), 0);
  // The formatter decides how an absent path looks.
  EXPECT_THAT(log(), MatchesRegex("The volume must mounted and writable\nSetting up legacy booting to [^\n]*\n"));
  EXPECT_THAT(machine.journal(), IsEmpty());
}

TEST_F(LegacyBootTest, NoDeviceIsOpenedOrMounted) {
  addAll();
  EXPECT_EQ(setUp(), 0);
  EXPECT_THAT(deviceLines(), IsEmpty());
  EXPECT_THAT(mountsAndUnmounts(), IsEmpty());
}

}  // namespace
}  // namespace vorlix::test
