// SPDX-License-Identifier: Apache-2.0
//
// The device manager's scans of the I/O registry: removable media, EFI System Partitions, APFS volumes.
#include "tests/unit/support/DeviceManagerFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kAssertion = "KERN_SUCCESS == kr";

class DeviceManagerRegistryScansTest : public DeviceManagerTest {
 protected:
  /// Adds a service of the class by which removable media are searched.
  void addClient(const std::optional<std::string>& name) {
    Dictionary properties;
    if (name) properties.set("BSD Name", *name);
    addService("Client", properties, {}, "IOUserClientClass");
  }

  RegistryEntryID addMedia(const std::string& name, const char* hint = kDiskText, const char* matched = nullptr) {
    Dictionary properties = dictionaryOf({{"Content Hint", textValue(hint)}});
    if (matched != nullptr) properties.set("IONameMatched", textValue(matched));
    return addService(name, properties);
  }

  RegistryEntryID addAPFS(const std::string& name) {
    return addService(name, dictionaryOf({{"FullName", Value(name)}, {"Open", Value(true)}}), {}, "AppleAPFSVolume");
  }
};

// ----------------------------------------------------------------------------------------------------- removable media

TEST_F(DeviceManagerRegistryScansTest, ANormalMachineHasNoRemovableMedia) {
  addService("Disc", dictionaryOf({{"BSD Name", textValue("disk1")}, {"Ejectable", Value(true)}}), {}, "IOCDMedia");
  EXPECT_THAT(manager->ejectableMedia(), IsEmpty());
  EXPECT_THAT(machine.journal(), ElementsAre("registry port", "registry match class IOUserClientClass"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerRegistryScansTest, DevicePathsOfMediaAreInTheScansOrder) {
  addClient("disk9");
  addClient("disk2s1");
  addClient("disk4");
  EXPECT_THAT(manager->ejectableMedia(), ElementsAre("/dev/disk9", "/dev/disk2s1", "/dev/disk4"));
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(DeviceManagerRegistryScansTest, MediaWithoutADevicePathAreLoggedAndSkipped) {
  addClient(std::nullopt);
  addClient("disk2");
  addClient(std::string(1200, 'd'));
  addClient("disk\xC3\xA4");
  addClient("disk4");
  EXPECT_THAT(manager->ejectableMedia(), ElementsAre("/dev/disk2", "/dev/disk4"));
  EXPECT_EQ(lines(), Lines(3, "Error finding removiable media"));
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(DeviceManagerRegistryScansTest, TheLongestDevicePathHas1023Characters) {
  addClient(std::string(1018, 'd'));
  addClient(std::string(1019, 'd'));
  EXPECT_THAT(manager->ejectableMedia(), ElementsAre("/dev/" + std::string(1018, 'd')));
  EXPECT_THAT(lines(), ElementsAre("Error finding removiable media"));
}

TEST_F(DeviceManagerRegistryScansTest, AFailedSearchFindsNoMedia) {
  addClient("disk2");
  machine.failRegistry(RegistryCall::matchingServices, 5);
  OutputCapture output(STDOUT_FILENO);
  const Lines media = manager->ejectableMedia();
  EXPECT_EQ(output.text(), "No ejectable CD media found.\n kernResult = 5\n");
  EXPECT_THAT(media, IsEmpty());
}

TEST_F(DeviceManagerRegistryScansTest, WithoutARegistryPortThereAreNoMedia) {
  addClient("disk2");
  machine.failRegistry(RegistryCall::masterPort, 26);
  OutputCapture output(STDOUT_FILENO);
  const Lines media = manager->ejectableMedia();
  EXPECT_EQ(output.text(), "IOMasterPort returned 26\n");
  EXPECT_THAT(media, IsEmpty());
}

// ---------------------------------------------------------------------------------------------- EFI System Partitions

TEST_F(DeviceManagerRegistryScansTest, EFIPartitionsAreLoggedAndTheResultIsAbsent) {
  addMedia("EFI1");
  addMedia("Windows", "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7");
  addMedia("EFI2");
  EXPECT_EQ(manager->attachedDisksFromIORegistry(), std::nullopt);
  EXPECT_THAT(lines(), ElementsAre("Found a device of class kAppleSamplePCIClassName: IOService:/Root/EFI1",
                                   "Found a device of class kAppleSamplePCIClassName: IOService:/Root/EFI2"));
  EXPECT_THAT(journalOf({"registry match"}), ElementsAre("registry match class IOMedia with Content Hint"));
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(DeviceManagerRegistryScansTest, TheNameByWhichAPartitionMatchedIsLogged) {
  addMedia("EFI1", kDiskText, "efi,slot");
  addMedia("EFI2");
  EXPECT_EQ(manager->attachedDisksFromIORegistry(), std::nullopt);
  EXPECT_THAT(lines(), ElementsAre("Found a device of class kAppleSamplePCIClassName: IOService:/Root/EFI1",
                                   "Device matched on name: efi,slot",
                                   "Found a device of class kAppleSamplePCIClassName: IOService:/Root/EFI2"));
}

TEST_F(DeviceManagerRegistryScansTest, OnlyMediaOfTheExactContentAreEFIPartitions) {
  addMedia("lower", "c12a7328-f81f-11d2-ba4b-00a0c93ec93b");
  addService("other", dictionaryOf({{"Content Hint", textValue(kDiskText)}}), {}, "IOService");
  addService("bare", {});
  EXPECT_EQ(manager->attachedDisksFromIORegistry(), std::nullopt);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerRegistryScansTest, AFailedScanForEFIPartitionsIsPrinted) {
  addMedia("EFI1");
  machine.failRegistry(RegistryCall::matchingServices, static_cast<KernReturn>(0xE00002C7));
  OutputCapture output(STDOUT_FILENO);
  const auto result = manager->attachedDisksFromIORegistry();
  EXPECT_EQ(output.text(), "IOServiceGetMatchingServices returned 0xe00002c7\n");
  EXPECT_EQ(result, std::nullopt);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerRegistryScansTest, TheCodeOfAFailedScanHasEightDigits) {
  machine.failRegistry(RegistryCall::matchingServices, 5);
  OutputCapture output(STDOUT_FILENO);
  static_cast<void>(manager->attachedDisksFromIORegistry());
  static_cast<void>(manager->attachedAPFSVolumesFromIORegistry());
  EXPECT_EQ(output.text(),
            "IOServiceGetMatchingServices returned 0x00000005\nIOServiceGetMatchingServices returned 0x00000005\n");
}

TEST_F(DeviceManagerRegistryScansTest, TheScansLeaveTheStatusesUnchanged) {
  addMedia("EFI1");
  addAPFS("Macintosh HD");
  addClient("disk2");
  manager->setUnmountStatus(1);
  static_cast<void>(manager->attachedDisksFromIORegistry());
  static_cast<void>(manager->attachedAPFSVolumesFromIORegistry());
  static_cast<void>(manager->ejectableMedia());
  EXPECT_EQ(manager->unmountStatus(), 1);
}

// -------------------------------------------------------------------------------------------------------- APFS volumes

TEST_F(DeviceManagerRegistryScansTest, PropertiesOfAPFSVolumesAreInTheScansOrder) {
  addAPFS("Macintosh HD");
  addMedia("EFI1");
  addAPFS("Data");
  const auto volumes = manager->attachedAPFSVolumesFromIORegistry();
  ASSERT_EQ(volumes.size(), 2U);
  EXPECT_EQ(volumes[0].text("FullName"), "Macintosh HD");
  EXPECT_EQ(volumes[0].boolean("Open"), true);
  EXPECT_EQ(volumes[0].values().size(), 2U);
  EXPECT_EQ(volumes[1].text("FullName"), "Data");
  EXPECT_THAT(lines(), ElementsAre("Found a device of class kAppleSamplePCIClassName: IOService:/Root/Macintosh HD",
                                   "Found a device of class kAppleSamplePCIClassName: IOService:/Root/Data"));
  EXPECT_THAT(journalOf({"registry match"}), ElementsAre("registry match class AppleAPFSVolume"));
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(DeviceManagerRegistryScansTest, WithoutAPFSVolumesTheArrayIsEmpty) {
  EXPECT_THAT(manager->attachedAPFSVolumesFromIORegistry(), IsEmpty());
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerRegistryScansTest, TheNameByWhichAnAPFSVolumeMatchedIsNotLogged) {
  addService("Data", dictionaryOf({{"IONameMatched", textValue("x")}}), {}, "AppleAPFSVolume");
  EXPECT_EQ(manager->attachedAPFSVolumesFromIORegistry().size(), 1U);
  EXPECT_EQ(lines().size(), 1U);
}

TEST_F(DeviceManagerRegistryScansTest, AFailedScanForAPFSVolumesIsPrinted) {
  addAPFS("Data");
  machine.failRegistry(RegistryCall::matchingServices, static_cast<KernReturn>(0xE00002BC));
  OutputCapture output(STDOUT_FILENO);
  const auto volumes = manager->attachedAPFSVolumesFromIORegistry();
  EXPECT_EQ(output.text(), "IOServiceGetMatchingServices returned 0xe00002bc\n");
  EXPECT_THAT(volumes, IsEmpty());
}

// --------------------------------------------------------------------------------------- failures that end the process

class DeviceManagerScansDeathTest : public DeviceManagerRegistryScansTest {
 protected:
  void SetUp() override {
    DeviceManagerRegistryScansTest::SetUp();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }
};

TEST_F(DeviceManagerScansDeathTest, AnEFIPartitionWithoutAPathEndsTheProcess) {
  machine.failRegistry(RegistryCall::path, 5, addMedia("EFI1"));
  EXPECT_DEATH(static_cast<void>(manager->attachedDisksFromIORegistry()), kAssertion);
}

TEST_F(DeviceManagerScansDeathTest, AnEFIPartitionWithoutPropertiesEndsTheProcess) {
  machine.failRegistry(RegistryCall::copyProperties, 5, addMedia("EFI1"));
  EXPECT_DEATH(static_cast<void>(manager->attachedDisksFromIORegistry()), kAssertion);
}

TEST_F(DeviceManagerScansDeathTest, AnAPFSVolumeWithoutAPathEndsTheProcess) {
  machine.failRegistry(RegistryCall::path, 5, addAPFS("Data"));
  EXPECT_DEATH(static_cast<void>(manager->attachedAPFSVolumesFromIORegistry()), kAssertion);
}

TEST_F(DeviceManagerScansDeathTest, AnAPFSVolumeWithoutPropertiesEndsTheProcess) {
  addAPFS("Whole");
  machine.failRegistry(RegistryCall::copyProperties, 5, addAPFS("Data"));
  EXPECT_DEATH(static_cast<void>(manager->attachedAPFSVolumesFromIORegistry()), kAssertion);
}

}  // namespace
}  // namespace vorlix::test
