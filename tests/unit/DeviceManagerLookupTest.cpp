// SPDX-License-Identifier: Apache-2.0
//
// What the device manager reports of one device: its whole disk, descriptions and type; also the machine's model.
#include "tests/unit/support/DeviceManagerFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DeviceManagerLookupTest : public DeviceManagerTest {
 protected:
  DeviceManagerLookupTest() {
    addDevice("disk3s2");
    path = mountVolume("disk2s1", "Data", "ntfs");
  }

  static std::optional<std::string> nameIn(const std::optional<Dictionary>& description) {
    return description ? description->text("DAMediaBSDName") : std::nullopt;
  }

  std::string path;
};

// ----------------------------------------------------------------------------------------------- whole disk of a slice

TEST_F(DeviceManagerLookupTest, TheWholeDiskOfASliceIsUnderDev) {
  OutputCapture output(STDOUT_FILENO);
  EXPECT_EQ(manager->diskFromSlice("disk3s2"), "/dev/disk3");
  EXPECT_EQ(manager->diskFromSlice("/dev/disk3s2"), "/dev/disk3");
  EXPECT_EQ(output.text(), "");
  EXPECT_THAT(machine.journal(), ElementsAre("session open", "session close", "session open", "session close"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerLookupTest, AWholeDiskReturnsItself) {
  EXPECT_EQ(manager->diskFromSlice("disk3"), "/dev/disk3");
  EXPECT_EQ(manager->diskFromSlice("/dev/disk3"), "/dev/disk3");
}

TEST_F(DeviceManagerLookupTest, TheWholeDiskOfAnUnknownDeviceIsAbsentAndAMessageIsPrinted) {
  OutputCapture output(STDOUT_FILENO);
  const auto result = manager->diskFromSlice("disk9s1");
  EXPECT_EQ(output.text(), "disk NULL");
  EXPECT_EQ(result, std::nullopt);
  EXPECT_THAT(machine.journal(), ElementsAre("session open", "session close"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerLookupTest, TheWholeDiskWithoutASessionIsAbsentAndAMessageIsPrinted) {
  machine.refuseSessions();
  OutputCapture output(STDOUT_FILENO);
  const auto result = manager->diskFromSlice("disk3s2");
  EXPECT_EQ(output.text(), "session NULL");
  EXPECT_EQ(result, std::nullopt);
}

TEST_F(DeviceManagerLookupTest, ADeviceWithoutAWholeDiskIsSilentlyAbsent) {
  machine.hideWholeDisk("disk3s2");
  OutputCapture output(STDOUT_FILENO);
  const auto result = manager->diskFromSlice("disk3s2");
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(result, std::nullopt);
  EXPECT_THAT(machine.journal(), ElementsAre("session open", "session close"));
}

TEST_F(DeviceManagerLookupTest, TheLookUpOfTheWholeDiskLeavesTheStatusesUnchanged) {
  manager->setUnmountStatus(1);
  manager->setMountStatus(1);
  static_cast<void>(manager->diskFromSlice("disk3s2"));
  EXPECT_EQ(manager->unmountStatus(), 1);
  EXPECT_EQ(manager->mountStatus(), 1);
}

// -------------------------------------------------------------------------------------------------------- descriptions

TEST_F(DeviceManagerLookupTest, ADevicesDescriptionIsTheSystemsDescription) {
  machine.setDescription("disk3s2", "DADeviceInternal", Value(true));
  machine.setDescription("disk3s2", "DADevicePath", textValue("IOService:/x"));
  machine.setDescription("disk3s2", "Something", Value(int64_t{-5}));
  for (const char* device : {"/dev/disk3s2", "disk3s2"}) {
    const auto description = manager->diskInfo(device);
    ASSERT_TRUE(description) << device;
    EXPECT_EQ(description->text("DAMediaBSDName"), "disk3s2");
    EXPECT_EQ(description->integer("DAMediaSize"), 100 * 512);
    EXPECT_EQ(description->integer("DAMediaBlockSize"), 512);
    EXPECT_EQ(description->boolean("DADeviceInternal"), true);
    EXPECT_EQ(description->text("DADevicePath"), "IOService:/x");
    EXPECT_EQ(description->integer("Something"), -5);
    EXPECT_EQ(description->values().size(), 6U);
  }
}

TEST_F(DeviceManagerLookupTest, DescriptionsByPathAndByURLAreEqual) {
  const auto byPath = manager->diskInfo("/dev/disk3s2");
  const auto byURL = manager->diskInfoForDeviceNodeAtURL(URL::fileURLWithPath("/dev/disk3s2"));
  ASSERT_TRUE(byPath && byURL);
  EXPECT_EQ(byPath->values(), byURL->values());
  EXPECT_THAT(machine.journal(), ElementsAre("session open", "describe disk3s2", "session close", "session open",
                                             "describe disk3s2", "session close"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerLookupTest, AVolumeIsDescribedByItsMountPath) {
  EXPECT_EQ(nameIn(manager->diskInfoFromMountedPath(path)), "disk2s1");
  EXPECT_EQ(nameIn(manager->diskInfoForVolumeMountedAtURL(URL::fileURLWithPath(path))), "disk2s1");
  EXPECT_THAT(machine.journal(), ElementsAre("session open", "describe disk2s1", "session close", "session open",
                                             "describe disk2s1", "session close"));
}

TEST_F(DeviceManagerLookupTest, ADeviceIsNotAMountPathAndAMountPathIsNotADevice) {
  EXPECT_FALSE(manager->diskInfo(path));
  EXPECT_FALSE(manager->diskInfoFromMountedPath("/dev/disk2s1"));
}

TEST_F(DeviceManagerLookupTest, UnknownNamesHaveNoDescriptionAndNothingIsPrinted) {
  OutputCapture output(STDOUT_FILENO);
  EXPECT_FALSE(manager->diskInfo("/dev/disk9s1"));
  EXPECT_FALSE(manager->diskInfo(""));
  EXPECT_FALSE(manager->diskInfoForDeviceNodeAtURL(URL()));
  EXPECT_FALSE(manager->diskInfoFromMountedPath("/nowhere"));
  EXPECT_FALSE(manager->diskInfoForVolumeMountedAtURL(URL()));
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(countOf("session open"), 5);
  EXPECT_EQ(countOf("session close"), 5);
}

TEST_F(DeviceManagerLookupTest, ADiskWithAHiddenDescriptionHasNone) {
  machine.hideDescription("disk3s2");
  machine.hideDescription("disk2s1");
  EXPECT_FALSE(manager->diskInfo("/dev/disk3s2"));
  EXPECT_FALSE(manager->diskInfoFromMountedPath(path));
}

TEST_F(DeviceManagerLookupTest, WithoutASessionNothingIsDescribed) {
  machine.refuseSessions();
  EXPECT_FALSE(manager->diskInfo("/dev/disk3s2"));
  EXPECT_FALSE(manager->diskInfoFromMountedPath(path));
  EXPECT_FALSE(manager->fileSystemTypeAtPath(path));
}

TEST_F(DeviceManagerLookupTest, EveryDescriptionSetsTheUnmountStatusWithoutAnUnmount) {
  const std::vector<std::function<void()>> lookUps = {
      [this] { static_cast<void>(manager->diskInfo("/dev/disk3s2")); },
      [this] { static_cast<void>(manager->diskInfo("/dev/disk9s9")); },
      [this] { static_cast<void>(manager->diskInfoForDeviceNodeAtURL(URL::fileURLWithPath("/dev/disk3s2"))); },
      [this] { static_cast<void>(manager->diskInfoFromMountedPath(path)); },
      [this] { static_cast<void>(manager->diskInfoFromMountedPath("/nowhere")); },
      [this] { static_cast<void>(manager->diskInfoForVolumeMountedAtURL(URL::fileURLWithPath(path))); },
      [this] { static_cast<void>(manager->fileSystemTypeAtPath(path)); },
  };
  for (size_t index = 0; index < lookUps.size(); ++index) {
    manager->setUnmountStatus(0);
    manager->setMountStatus(1);
    manager->setDidUnmount(true);
    lookUps[index]();
    EXPECT_EQ(manager->unmountStatus(), -1) << index;
    EXPECT_EQ(manager->mountStatus(), 1) << index;
    EXPECT_TRUE(manager->didUnmount()) << index;
  }
  EXPECT_EQ(mountsAndUnmounts(), Lines());
}

TEST_F(DeviceManagerLookupTest, TheUnmountStatusIsSetBeforeAnyQuery) {
  machine.refuseSessions();
  manager->setUnmountStatus(0);
  static_cast<void>(manager->diskInfo("/dev/disk3s2"));
  EXPECT_EQ(manager->unmountStatus(), -1);
  manager->setUnmountStatus(0);
  static_cast<void>(manager->diskInfoFromMountedPath(path));
  EXPECT_EQ(manager->unmountStatus(), -1);
}

TEST_F(DeviceManagerLookupTest, OnlyTheReceiversStatusIsSet) {
  const auto other = QDDeviceManager::init();
  static_cast<void>(other->diskInfo("/dev/disk3s2"));
  EXPECT_EQ(other->unmountStatus(), -1);
  EXPECT_EQ(manager->unmountStatus(), 0);
}

// ---------------------------------------------------------------------------------------------------- file-system type

TEST_F(DeviceManagerLookupTest, TheFileSystemTypeIsTheMountedVolumesType) {
  EXPECT_EQ(manager->fileSystemTypeAtPath(path), "ntfs");
  machine.setDescription("disk2s1", "DAVolumeType", textValue("NTFS (Other)"));
  EXPECT_EQ(manager->fileSystemTypeAtPath(path), "NTFS (Other)");
}

TEST_F(DeviceManagerLookupTest, AMissingFileSystemTypeIsAbsent) {
  machine.removeDescription("disk2s1", "DAVolumeType");
  EXPECT_EQ(manager->fileSystemTypeAtPath(path), std::nullopt);
  EXPECT_EQ(manager->fileSystemTypeAtPath("/nowhere"), std::nullopt);
  EXPECT_EQ(manager->fileSystemTypeAtPath(""), std::nullopt);
}

TEST_F(DeviceManagerLookupTest, TheFileSystemsDescriptionIsAlwaysEmpty) {
  machine.clearJournal();
  manager->setUnmountStatus(1);
  EXPECT_EQ(manager->fileSystemDescriptionAtPath(path), "");
  EXPECT_EQ(manager->fileSystemDescriptionAtPath("/nowhere"), "");
  EXPECT_EQ(manager->fileSystemDescriptionAtPath(""), "");
  EXPECT_EQ(machine.journal(), Lines());
  EXPECT_EQ(manager->unmountStatus(), 1);
}

// --------------------------------------------------------------------------------------------------------------- model

class DeviceManagerModelTest : public DeviceManagerTest {
 protected:
  void addModel(const std::string& bytes) {
    addService("Expert", dictionaryOf({{"model", Value(Data(bytes.begin(), bytes.end()))}}), {},
               "IOPlatformExpertDevice");
  }
};

TEST_F(DeviceManagerModelTest, TheModelIsThePlatformExpertsWithoutItsZeroByte) {
  addService("Other", dictionaryOf({{"model", Value(Data{'n', 'o'})}}), {}, "IOMedia");
  addModel(std::string("MacBookPro14,3\0", 15));
  EXPECT_EQ(manager->currentModelIdentifier(), "MacBookPro14,3");
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerModelTest, BlanksAndZeroBytesAreRemovedEverywhereAndNothingElse) {
  addModel(std::string(" Mac Book\0Pro\t14,3 \n\0\0", 22));
  EXPECT_EQ(manager->currentModelIdentifier(), "MacBookPro\t14,3\n");
}

TEST_F(DeviceManagerModelTest, LettersBeyondASCIIAreKept) {
  addModel(
      "M\xC3\xA4"
      "c1,1");
  EXPECT_EQ(manager->currentModelIdentifier(),
            "M\xC3\xA4"
            "c1,1");
}

TEST_F(DeviceManagerModelTest, AnUnknownModelIsEmpty) {
  EXPECT_EQ(manager->currentModelIdentifier(), "");
  addService("Expert", {}, {}, "IOPlatformExpertDevice");
  EXPECT_EQ(manager->currentModelIdentifier(), "");
}

TEST_F(DeviceManagerModelTest, AModelThatIsNotTextIsEmpty) {
  addModel("\xFF\xFE");
  EXPECT_EQ(manager->currentModelIdentifier(), "");
}

TEST_F(DeviceManagerModelTest, AFailedRegistrySearchLeavesItEmpty) {
  addModel("MacBookPro14,3");
  machine.failRegistry(RegistryCall::matchingServices, 5);
  EXPECT_EQ(manager->currentModelIdentifier(), "");
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

}  // namespace
}  // namespace vorlix::test
