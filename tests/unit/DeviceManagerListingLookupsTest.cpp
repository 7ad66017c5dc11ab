// SPDX-License-Identifier: Apache-2.0
//
// Finding a listed volume, counting Windows-type partitions, and finding the built-in one.
#include "tests/unit/support/DeviceManagerFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Forwards all calls and records the names by which disks are requested.
class RecordingArbitration : public DiskArbitration {
 public:
  explicit RecordingArbitration(std::shared_ptr<DiskArbitration> real) : real_(std::move(real)) {}

  std::shared_ptr<DiskArbitrationSession> createSession() override {
    class Session : public DiskArbitrationSession {
     public:
      Session(std::shared_ptr<DiskArbitrationSession> real, Lines& names) : real_(std::move(real)), names_(names) {}
      std::shared_ptr<Disk> diskFromBSDName(const std::string& name) override {
        names_.push_back(name);
        return real_->diskFromBSDName(name);
      }
      std::shared_ptr<Disk> diskFromVolumePath(const URL& path) override { return real_->diskFromVolumePath(path); }
      void schedule(RunLoop& loop, const std::string& mode) override { real_->schedule(loop, mode); }
      void unschedule(RunLoop& loop, const std::string& mode) override { real_->unschedule(loop, mode); }

     private:
      std::shared_ptr<DiskArbitrationSession> real_;
      Lines& names_;
    };
    return std::make_shared<Session>(real_->createSession(), names);
  }

  Lines names;

 private:
  std::shared_ptr<DiskArbitration> real_;
};

class DeviceManagerListingLookupsTest : public DeviceManagerTest {
 protected:
  void setInternal(const std::string& device, bool value = true) {
    machine.setDescription(device, "DADeviceInternal", Value(value));
  }
  void setMediaUUID(const std::string& device, const char* text) {
    machine.setDescription(device, "DAMediaUUID", Value(*UUID::fromText(text)));
  }
  static std::string nameOf(const std::shared_ptr<QDVolume>& volume) {
    return volume ? volume->diskName().value_or("(none)") : "(null)";
  }
  static URL node(const std::string& path) { return URL::fileURLWithPath(path); }

  const UUID medium = *UUID::fromText(kPartitionText);
};

// ---------------------------------------------------------------------------------------------------------- one volume

TEST_F(DeviceManagerListingLookupsTest, TheFirstVolumeOfAMediumIsFound) {
  mountVolume("disk2s1", "Other", "ntfs");
  mountVolume("disk2s2", "First", "ntfs");
  mountVolume("disk2s3", "Second", "ntfs");
  setMediaUUID("disk2s1", kDiskText);
  setMediaUUID("disk2s2", kPartitionText);
  setMediaUUID("disk2s3", kPartitionText);
  EXPECT_EQ(nameOf(manager->volumeWithMediaUUID(medium)), "First");
  EXPECT_EQ(nameOf(manager->volumeWithMediaUUID(*UUID::fromText(kDiskText))), "Other");
  EXPECT_EQ(manager->volumeWithMediaUUID(UUID()), nullptr);
}

TEST_F(DeviceManagerListingLookupsTest, TheNodeSelectsAmongSeveralVolumesOfAMedium) {
  mountVolume("disk2s2", "First", "ntfs");
  mountVolume("disk2s3", "Second", "ntfs");
  setMediaUUID("disk2s2", kPartitionText);
  setMediaUUID("disk2s3", kPartitionText);
  EXPECT_EQ(nameOf(manager->volumeWithMediaUUID(medium, node("/dev/disk2s3"))), "Second");
  EXPECT_EQ(nameOf(manager->volumeWithMediaUUID(medium, node("/dev/disk2s2"))), "First");
  EXPECT_EQ(manager->volumeWithMediaUUID(medium, node("disk2s3")), nullptr);
  EXPECT_EQ(manager->volumeWithMediaUUID(medium, URL()), nullptr);
  EXPECT_EQ(manager->volumeWithMediaUUID(*UUID::fromText(kDiskText), node("/dev/disk2s3")), nullptr);
}

TEST_F(DeviceManagerListingLookupsTest, AVolumeWithoutAMediumUUIDIsNotFound) {
  mountVolume("disk2s2", "Data", "ntfs");
  EXPECT_EQ(manager->volumeWithMediaUUID(UUID()), nullptr);
  EXPECT_EQ(manager->volumeWithMediaUUID(UUID(), node("/dev/disk2s2")), nullptr);
}

TEST_F(DeviceManagerListingLookupsTest, TheFirstVolumeWithTheExactNameIsFound) {
  mountVolume("disk2s1", "data", "ntfs");
  mountVolume("disk2s2", "Data", "ntfs");
  machine.addMountedVolume({"Data", mounts / "Data", "/dev/disk2s1", 1, 1});
  const auto volume = manager->volumeForLabel("Data");
  ASSERT_NE(volume, nullptr);
  EXPECT_EQ(volume->device(), "/dev/disk2s2");
  EXPECT_EQ(manager->volumeForLabel("DATA"), nullptr);
  EXPECT_EQ(manager->volumeForLabel("Dat"), nullptr);
  EXPECT_EQ(manager->volumeForLabel(""), nullptr);
}

TEST_F(DeviceManagerListingLookupsTest, AVolumeIsFoundByItsListedDevice) {
  mountVolume("disk2s1", "One", "ntfs");
  mountVolume("disk2s10", "Ten", "ntfs");
  mountVolumeFrom("ntfs://disk4s1/Data", "disk4s1", "Driver", "ntfs");
  EXPECT_EQ(nameOf(manager->volumeForNode("/dev/disk2s10")), "Ten");
  EXPECT_EQ(nameOf(manager->volumeForNode("/dev/disk2s1")), "One");
  EXPECT_EQ(nameOf(manager->volumeForNode("/dev/disk4s1")), "Driver");
  EXPECT_EQ(manager->volumeForNode("disk2s1"), nullptr);
  EXPECT_EQ(manager->volumeForNode("/dev/disk2"), nullptr);
  EXPECT_EQ(manager->volumeForNode(""), nullptr);
}

TEST_F(DeviceManagerListingLookupsTest, MacVolumesAreNeverFound) {
  mountVolume("disk2s1", "Plus", "hfs");
  setMediaUUID("disk2s1", kPartitionText);
  EXPECT_EQ(manager->volumeForLabel("Plus"), nullptr);
  EXPECT_EQ(manager->volumeForNode("/dev/disk2s1"), nullptr);
  EXPECT_EQ(manager->volumeWithMediaUUID(medium), nullptr);
  EXPECT_EQ(manager->volumeWithMediaUUID(medium, node("/dev/disk2s1")), nullptr);
  EXPECT_EQ(manager->pathForDevice("/dev/disk2s1"), std::nullopt);
}

TEST_F(DeviceManagerListingLookupsTest, VolumesAreFoundWithAndWithoutWindows) {
  mountVolume("disk2s1", "Empty", "exfat");
  mountVolume("disk2s2", "BOOTCAMP", "ntfs");
  installWindows("BOOTCAMP");
  EXPECT_FALSE(manager->volumeForLabel("Empty")->hasWindows());
  EXPECT_TRUE(manager->volumeForLabel("BOOTCAMP")->hasWindows());
}

TEST_F(DeviceManagerListingLookupsTest, EveryLookUpListsAfreshAndOnce) {
  mountVolume("disk2s1", "Data", "ntfs");
  const std::vector<std::function<void()>> lookUps = {
      [this] { static_cast<void>(manager->volumeForLabel("Data")); },
      [this] { static_cast<void>(manager->volumeForNode("/dev/disk2s1")); },
      [this] { static_cast<void>(manager->volumeWithMediaUUID(medium)); },
      [this] { static_cast<void>(manager->volumeWithMediaUUID(medium, node("/dev/disk2s1"))); },
      [this] { static_cast<void>(manager->numberOfMSPartitions()); },
      [this] { static_cast<void>(manager->builtInBootcampPartition()); },
      [this] { static_cast<void>(manager->pathForDevice("/dev/disk2s1")); },
  };
  for (size_t index = 0; index < lookUps.size(); ++index) {
    machine.clearJournal();
    lookUps[index]();
    EXPECT_EQ(countOf("list mounted volumes"), 1) << index;
  }
  EXPECT_THAT(lines(), IsEmpty());
}

// ---------------------------------------------------------------------------------------------------------- mount path

TEST_F(DeviceManagerListingLookupsTest, TheMountPathOfAListedDeviceIsFound) {
  mountVolume("disk2s1", "One", "ntfs");
  const std::string path = mountVolume("disk2s2", "Two", "msdos");
  EXPECT_EQ(manager->pathForDevice("/dev/disk2s2"), path);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerListingLookupsTest, AMissingMountPathIsLogged) {
  mountVolume("disk2s1", "One", "ntfs");
  for (const char* device : {"disk2s1", "/dev/disk2s2", ""}) {
    EXPECT_EQ(manager->pathForDevice(device), std::nullopt) << device;
  }
  EXPECT_EQ(lines(), Lines(3, "COULD NOT FIND MOUNT!"));
}

TEST_F(DeviceManagerListingLookupsTest, TheMountPathIsLookedUpByASeparateInstance) {
  mountVolume("disk2s1", "One", "ntfs");
  manager->setUnmountStatus(7);
  const auto other = QDDeviceManager::init();
  other->setUnmountStatus(8);
  EXPECT_TRUE(manager->pathForDevice("/dev/disk2s1"));
  EXPECT_TRUE(other->pathForDevice("/dev/disk2s1"));
  EXPECT_EQ(manager->unmountStatus(), 7);
  EXPECT_EQ(other->unmountStatus(), 8);
}

// ------------------------------------------------------------------------------------------------------------ counting

TEST_F(DeviceManagerListingLookupsTest, WithoutVolumesTheCountIsZero) {
  EXPECT_EQ(manager->numberOfMSPartitions(), 0);
  mountVolume("disk0s1", "Plus", "hfs");
  setInternal("disk0s1");
  EXPECT_EQ(manager->numberOfMSPartitions(), 0);
}

TEST_F(DeviceManagerListingLookupsTest, InternalNTFSAndFATVolumesCount) {
  mountVolume("disk0s1", "EFI", "msdos");
  mountVolume("disk0s3", "BOOTCAMP", "ntfs");
  setInternal("disk0s1");
  setInternal("disk0s3");
  EXPECT_EQ(manager->numberOfMSPartitions(), 2);
}

TEST_F(DeviceManagerListingLookupsTest, ExFATAndExternalVolumesDoNotCount) {
  mountVolume("disk0s1", "Card", "exfat");
  setInternal("disk0s1");
  mountVolume("disk2s1", "External", "ntfs");
  setInternal("disk2s1", false);
  mountVolume("disk2s2", "Unknown", "ntfs");
  EXPECT_EQ(manager->numberOfMSPartitions(), 0);
}

TEST_F(DeviceManagerListingLookupsTest, OnlyTheExactTypeCounts) {
  mountVolume("disk0s1", "One", "ntfs");
  mountVolume("disk0s2", "Two", "msdos");
  mountVolume("disk0s3", "Three", "ntfs");
  for (const char* device : {"disk0s1", "disk0s2", "disk0s3"}) setInternal(device);
  machine.setDescription("disk0s1", "DAVolumeType", textValue("NTFS"));
  machine.setDescription("disk0s2", "DAVolumeType", textValue("msdos2"));
  machine.removeDescription("disk0s3", "DAVolumeType");
  EXPECT_EQ(manager->numberOfMSPartitions(), 0);
  // The kind passes the list's filter, and the type is counted.
  machine.setDescription("disk0s3", "DAVolumeKind", textValue("exfat"));
  machine.setDescription("disk0s3", "DAVolumeType", textValue("ntfs"));
  EXPECT_EQ(manager->numberOfMSPartitions(), 1);
}

// ---------------------------------------------------------------------------------------------- the built-in partition

TEST_F(DeviceManagerListingLookupsTest, TheOnlyInternalWindowsPartitionIsFound) {
  mountVolume("disk2s1", "External", "ntfs");
  setInternal("disk2s1", false);
  mountVolume("disk0s3", "BOOTCAMP", "ntfs");
  setInternal("disk0s3");
  mountVolume("disk0s4", "Card", "exfat");
  setInternal("disk0s4");
  const auto volume = manager->builtInBootcampPartition();
  EXPECT_EQ(nameOf(volume), "BOOTCAMP");
  EXPECT_EQ(volume->device(), "/dev/disk0s3");
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerListingLookupsTest, NullWithoutAnInternalWindowsPartition) {
  EXPECT_EQ(manager->builtInBootcampPartition(), nullptr);
  mountVolume("disk2s1", "External", "ntfs");
  EXPECT_EQ(manager->builtInBootcampPartition(), nullptr);
  mountVolume("disk0s1", "Plus", "hfs");
  setInternal("disk0s1");
  EXPECT_EQ(manager->builtInBootcampPartition(), nullptr);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerListingLookupsTest, TwoInternalWindowsPartitionsAreTooMany) {
  mountVolume("disk0s3", "One", "ntfs");
  mountVolume("disk0s4", "Two", "msdos");
  setInternal("disk0s3");
  setInternal("disk0s4");
  EXPECT_EQ(manager->builtInBootcampPartition(), nullptr);
  EXPECT_THAT(lines(), ElementsAre("More than 1 partition found!"));
  mountVolume("disk0s5", "Three", "ntfs");
  setInternal("disk0s5");
  EXPECT_EQ(manager->builtInBootcampPartition(), nullptr);
  EXPECT_EQ(lines().size(), 2U);
}

TEST_F(DeviceManagerListingLookupsTest, AVolumeDescribedAsEFIIsNotCounted) {
  mountVolume("disk0s1", "Mounted", "msdos");
  mountVolume("disk0s3", "EFI", "ntfs");
  setInternal("disk0s1");
  setInternal("disk0s3");
  machine.setDescription("disk0s1", "DAVolumeName", textValue("EFI"));
  machine.setDescription("disk0s3", "DAVolumeName", textValue("efi"));
  EXPECT_EQ(nameOf(manager->builtInBootcampPartition()), "EFI");  // the list's name, not the description's
}

TEST_F(DeviceManagerListingLookupsTest, AVolumeWithoutADescribedNameIsCounted) {
  mountVolume("disk0s3", "EFI", "ntfs");
  setInternal("disk0s3");
  machine.removeDescription("disk0s3", "DAVolumeName");
  EXPECT_EQ(nameOf(manager->builtInBootcampPartition()), "EFI");
}

TEST_F(DeviceManagerListingLookupsTest, NTFSMatchesTheKindInAnyCaseAndFATMatchesExactly) {
  mountVolume("disk0s3", "Upper", "Fuse-NTFS");
  setInternal("disk0s3");
  EXPECT_EQ(nameOf(manager->builtInBootcampPartition()), "Upper");
  mountVolume("disk0s4", "Dos", "MSDOS");
  mountVolume("disk0s5", "Dos2", "xmsdos");
  setInternal("disk0s4");
  setInternal("disk0s5");
  EXPECT_EQ(nameOf(manager->builtInBootcampPartition()), "Upper");
  machine.setDescription("disk0s4", "DAVolumeKind", textValue("msdos"));
  EXPECT_EQ(manager->builtInBootcampPartition(), nullptr);
}

TEST_F(DeviceManagerListingLookupsTest, AnInternalVolumeWithoutAKindIsNotCounted) {
  mountVolume("disk0s3", "Kindless", "ntfs");
  setInternal("disk0s3");
  machine.removeDescription("disk0s3", "DAVolumeKind");
  EXPECT_EQ(manager->builtInBootcampPartition(), nullptr);
  EXPECT_EQ(manager->numberOfMSPartitions(), 1);  // counted by its type
}

TEST_F(DeviceManagerListingLookupsTest, TheDeviceIsRequestedWithTheFolderPrefixTwice) {
  mountVolume("disk0s3", "BOOTCAMP", "ntfs");
  setInternal("disk0s3");
  Platform ports = machine.platform();
  const auto recorder = std::make_shared<RecordingArbitration>(ports.diskArbitration);
  ports.diskArbitration = recorder;
  ScopedPlatform scope(ports);
  static_cast<void>(manager->builtInBootcampPartition());
  EXPECT_EQ(std::count(recorder->names.begin(), recorder->names.end(), "/dev//dev/disk0s3"), 1);
  EXPECT_EQ(recorder->names.back(), "/dev//dev/disk0s3");
  recorder->names.clear();
  static_cast<void>(manager->numberOfMSPartitions());
  EXPECT_EQ(std::count(recorder->names.begin(), recorder->names.end(), "/dev//dev/disk0s3"), 0);
  EXPECT_EQ(recorder->names.back(), "/dev/disk0s3");
}

}  // namespace
}  // namespace vorlix::test
