// SPDX-License-Identifier: Apache-2.0
//
// The registry on captured sysfs trees: the contract, and the properties of each kind of disk.
#include "platform/linux/IORegistry.h"

#include "CapturedTree.h"
#include "tests/contract/IORegistryContract.h"

namespace vorlix::test {
namespace {

RegistryMachine captured(const std::string& machine, const std::string& whole, const std::string& slice, int64_t number,
                         const std::string& uuid, int64_t base, const std::string& diskUUID) {
  const auto tree = std::make_shared<CapturedTree>(machine);
  return {tree, std::make_shared<LinuxIORegistry>(tree->root()), whole, slice, number, uuid, base, diskUUID};
}

RegistryMachine sataMachine() {
  return captured("sata", "sda", "sda3", 3, "00112233-4455-6677-8899-AABBCCDDEEFF", 409640 * 512,
                  "3F2504E0-4F89-41D3-9A0C-0305E82C3301");
}

RegistryMachine nvmeMachine() {
  return captured("nvme", "nvme0n1", "nvme0n1p1", 1, "AAAAAAAA-0000-4000-8000-000000000002", 2048 * 512,
                  "AAAAAAAA-0000-4000-8000-000000000001");
}

INSTANTIATE_TEST_SUITE_P(Linux, IORegistryContract,
                         testing::Values(RegistryCase{"SATA", sataMachine}, RegistryCase{"NVMe", nvmeMachine}),
                         caseName);

class LinuxIORegistryTest : public testing::Test {
 protected:
  void look(const std::string& machine) {
    tree_ = std::make_unique<CapturedTree>(machine);
    registry_ = std::make_unique<LinuxIORegistry>(tree_->root());
  }

  std::shared_ptr<RegistryEntry> only(const std::string& bsdName) {
    const Entries entries = named(*registry_, bsdName);
    EXPECT_EQ(entries.size(), 1U) << bsdName;
    return entries.empty() ? nullptr : entries.front();
  }

  Dictionary propertiesNamed(const std::string& bsdName) {
    const auto entry = only(bsdName);
    return entry == nullptr ? Dictionary() : propertiesOf(*entry);
  }

  std::vector<std::string> pathsOfWalk() {
    std::vector<std::string> paths;
    for (const auto& entry : walked(*registry_, kServicePlane)) paths.push_back(pathOf(*entry, kServicePlane));
    return paths;
  }

  Dictionary propertiesAbove(const std::string& bsdName) {
    std::shared_ptr<RegistryEntry> parent;
    EXPECT_EQ(only(bsdName)->parent(kServicePlane, parent), kKernSuccess);
    return propertiesOf(*parent);
  }

  // Returns the characteristics of the device above a whole disk.
  Dictionary characteristicsAbove(const std::string& whole) {
    std::shared_ptr<RegistryEntry> device;
    EXPECT_EQ(only(whole)->parent(kServicePlane, device), kKernSuccess);
    const auto characteristics = propertiesOf(*device).dictionary("Device Characteristics");
    return characteristics == nullptr ? Dictionary() : *characteristics;
  }

  std::unique_ptr<CapturedTree> tree_;
  std::unique_ptr<LinuxIORegistry> registry_;
};

TEST_F(LinuxIORegistryTest, TheWalkOverASATAMachine) {
  look("sata");
  EXPECT_THAT(
      pathsOfWalk(),
      testing::ElementsAre(
          "IOService:/", "IOService:/MacBookPro11,1", "IOService:/MacBookPro11,1/Example SSD 256G@sda",
          "IOService:/MacBookPro11,1/Example SSD 256G@sda/Example SSD 256G Media",
          "IOService:/MacBookPro11,1/Example SSD 256G@sda/Example SSD 256G Media/IOGUIDPartitionScheme",
          "IOService:/MacBookPro11,1/Example SSD 256G@sda/Example SSD 256G Media/IOGUIDPartitionScheme/Untitled 1@1",
          "IOService:/MacBookPro11,1/Example SSD 256G@sda/Example SSD 256G Media/IOGUIDPartitionScheme/Untitled 3@3",
          "IOService:/MacBookPro11,1/Example SSD 256G@sda/Example SSD 256G Media/IOGUIDPartitionScheme/Untitled 4@4"));
}

TEST_F(LinuxIORegistryTest, TheMachinesModelEndsWithANUL) {
  look("sata");
  const Entries experts = matching(*registry_, {"IOPlatformExpertDevice", std::nullopt, {}});
  ASSERT_EQ(experts.size(), 1U);
  const std::string model("MacBookPro11,1\0", 15);
  EXPECT_EQ(propertiesOf(*experts[0]).data("model"), Data(model.begin(), model.end()));
}

TEST_F(LinuxIORegistryTest, AMachineWithADeviceTreeHasAModelToo) {
  look("nvme");
  const Entries experts = matching(*registry_, {"IOPlatformExpertDevice", std::nullopt, {}});
  ASSERT_EQ(experts.size(), 1U);
  const std::string model("Example Board\0", 14);
  EXPECT_EQ(propertiesOf(*experts[0]).data("model"), Data(model.begin(), model.end()));
}

TEST_F(LinuxIORegistryTest, AMachineOfUnknownModelHasNoModelProperty) {
  look("usb");
  const Entries experts = matching(*registry_, {"IOPlatformExpertDevice", std::nullopt, {}});
  ASSERT_EQ(experts.size(), 1U);
  EXPECT_FALSE(propertiesOf(*experts[0]).contains("model"));
}

TEST_F(LinuxIORegistryTest, TheDiskGUIDIsBetweenTheMediumAndItsSlices) {
  look("sata");
  const Dictionary disk = propertiesNamed("sda");
  EXPECT_FALSE(disk.contains("UUID"));
  EXPECT_EQ(propertiesAbove("sda1").text("UUID"), "3F2504E0-4F89-41D3-9A0C-0305E82C3301");
  EXPECT_EQ(disk.text("Content"), "GUID_partition_scheme");
  EXPECT_EQ(disk.boolean("Whole"), true);
  EXPECT_EQ(disk.integer("Size"), int64_t{500118192} * 512);
  EXPECT_EQ(disk.integer("Preferred Block Size"), 512);
  EXPECT_EQ(disk.boolean("Removable"), false);
  EXPECT_EQ(disk.boolean("Writable"), true);
  EXPECT_FALSE(disk.contains("Partition ID"));
  EXPECT_FALSE(disk.contains("Base"));
}

TEST_F(LinuxIORegistryTest, ASliceHasTheDataOfUdev) {
  look("sata");
  const Dictionary slice = propertiesNamed("sda3");
  EXPECT_EQ(slice.boolean("Whole"), false);
  EXPECT_EQ(slice.integer("Size"), 204800 * 512);
  EXPECT_EQ(slice.text("Content"), "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7");
  EXPECT_EQ(slice.text("Content Hint"), "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7");
  EXPECT_EQ(slice.boolean("Writable"), false);
  EXPECT_EQ(propertiesNamed("sda1").text("Content Hint"), "C12A7328-F81F-11D2-BA4B-00A0C93EC93B");
}

TEST_F(LinuxIORegistryTest, ASliceIsNotMistakenForAnEarlierOneWithItsNumber) {
  look("sata");
  const Dictionary slice = propertiesNamed("sda4");
  EXPECT_EQ(slice.integer("Base"), int64_t{1000000} * 512);
  EXPECT_FALSE(slice.contains("UUID"));
  EXPECT_EQ(slice.text("Content"), "");
}

TEST_F(LinuxIORegistryTest, ASliceIsAlsoFoundByTheNumberOnItsDisk) {
  look("sata");
  EXPECT_EQ(propertiesNamed("sdas3").text("BSD Name"), "sda3");
  EXPECT_TRUE(named(*registry_, "sdas2").empty());
  EXPECT_TRUE(named(*registry_, "sda1s1").empty());
  EXPECT_TRUE(named(*registry_, "SDAs3").empty());
  EXPECT_TRUE(named(*registry_, "/dev/sda3").empty());
  look("nvme");
  EXPECT_EQ(propertiesNamed("nvme0n1s1").text("BSD Name"), "nvme0n1p1");
}

TEST_F(LinuxIORegistryTest, AKernelNameTakesPrecedenceOverANumberOnADisk) {
  look("sata");
  tree_->add(
      "[sys/block/sds]\nsize = 4096\n[sys/block/sds/sds1]\npartition = 1\nstart = 8\nsize = 16\n"
      "[sys/block/sd]\nsize = 4096\n[sys/block/sd/sd1]\npartition = 1\nstart = 32\nsize = 16\n");
  EXPECT_EQ(propertiesNamed("sds1").integer("Base"), 8 * 512);
}

TEST_F(LinuxIORegistryTest, ANodeInASubfolderHasASlashInItsName) {
  look("sata");
  tree_->add("[sys/block/cciss!c0d0]\nsize = 4096\n[sys/block/cciss!c0d0/cciss!c0d0p1]\npartition = 1\nstart = 8\n");
  EXPECT_EQ(propertiesNamed("cciss/c0d0").boolean("Whole"), true);
  EXPECT_EQ(propertiesNamed("cciss/c0d0p1").integer("Base"), 8 * 512);
}

TEST_F(LinuxIORegistryTest, TheMediumOfASATADiskIsSolidStateAndItsVendorIsAbsent) {
  look("sata");
  const Dictionary characteristics = characteristicsAbove("sda");
  EXPECT_EQ(characteristics.text("Medium Type"), "Solid State");
  EXPECT_EQ(characteristics.text("Product Name"), "Example SSD 256G");
  EXPECT_FALSE(characteristics.contains("Vendor Name"));
}

TEST_F(LinuxIORegistryTest, AnNVMeDiskBehindAMultipathHeadAppearsOnce) {
  look("nvme");
  EXPECT_THAT(bsdNamesOf(walked(*registry_, kServicePlane)), testing::ElementsAre("nvme0n1", "nvme0n1p1"));
  const Dictionary disk = propertiesNamed("nvme0n1");
  EXPECT_EQ(disk.integer("Preferred Block Size"), 4096);
  EXPECT_EQ(disk.integer("Size"), int64_t{1000215216} * 512);
  EXPECT_EQ(propertiesAbove("nvme0n1p1").text("UUID"), "AAAAAAAA-0000-4000-8000-000000000001");
  EXPECT_EQ(characteristicsAbove("nvme0n1").text("Product Name"), "Example NVMe 512G");
  EXPECT_TRUE(named(*registry_, "nvme0c0n1").empty());
}

TEST_F(LinuxIORegistryTest, AnMBRDiskHasNoIdentifiersThatLookLikeGUIDs) {
  look("usb");
  EXPECT_THAT(bsdNamesOf(walked(*registry_, kServicePlane)), testing::ElementsAre("sdb", "sdb1", "sdb2", "sdb5"));
  const Dictionary disk = propertiesNamed("sdb");
  EXPECT_EQ(disk.text("Content"), "FDisk_partition_scheme");
  EXPECT_FALSE(disk.contains("UUID"));
  EXPECT_FALSE(propertiesAbove("sdb1").contains("UUID"));
  EXPECT_EQ(matching(*registry_, {"IOFDiskPartitionScheme", std::nullopt, {}}).size(), 1U);
  EXPECT_EQ(disk.boolean("Removable"), true);
  for (const auto& [name, content] :
       {std::pair{"sdb1", "0x0C"}, std::pair{"sdb2", "0x05"}, std::pair{"sdb5", "0x07"}}) {
    EXPECT_EQ(propertiesNamed(name).text("Content"), content);
    EXPECT_FALSE(propertiesNamed(name).contains("UUID"));
  }
  EXPECT_EQ(propertiesNamed("sdb5").integer("Partition ID"), 5);
  const Dictionary characteristics = characteristicsAbove("sdb");
  EXPECT_EQ(characteristics.text("Medium Type"), "Rotational");
  EXPECT_EQ(characteristics.text("Vendor Name"), "Example");
}

TEST_F(LinuxIORegistryTest, AReaderWithoutACardIsADeviceWithoutAMedium) {
  look("cardreader");
  EXPECT_THAT(bsdNamesOf(walked(*registry_, kServicePlane)), testing::ElementsAre("mmcblk0"));
  EXPECT_TRUE(named(*registry_, "sdc").empty());
  const Entries devices = matching(*registry_, {"IOBlockStorageDevice", std::nullopt, {}});
  ASSERT_EQ(devices.size(), 2U);
  EXPECT_EQ(pathOf(*devices[1], kServicePlane), "IOService:/iMac14,2/SD:MMC Reader@sdc");
  const auto characteristics = propertiesOf(*devices[1]).dictionary("Device Characteristics");
  ASSERT_NE(characteristics, nullptr);
  EXPECT_EQ(characteristics->text("Product Name"), "SD/MMC Reader");
}

TEST_F(LinuxIORegistryTest, AMemoryCardWithoutATableIsAMediumWithoutSlices) {
  look("cardreader");
  const Dictionary card = propertiesNamed("mmcblk0");
  EXPECT_EQ(card.text("Content"), "");
  EXPECT_EQ(card.boolean("Writable"), false);
  EXPECT_FALSE(card.contains("UUID"));
  EXPECT_TRUE(matching(*registry_, {"IOPartitionScheme", std::nullopt, {}}).empty());
  EXPECT_EQ(characteristicsAbove("mmcblk0").text("Product Name"), "SD16G");
}

TEST_F(LinuxIORegistryTest, ADerivedClassMatches) {
  look("sata");
  EXPECT_EQ(matching(*registry_, {"IOStorage", std::nullopt, {}}).size(), 5U);
  EXPECT_EQ(matching(*registry_, {"IOPartitionScheme", std::nullopt, {}}).size(), 1U);
  EXPECT_EQ(matching(*registry_, {"IOService", std::nullopt, {}}).size(), 7U);  // all but the root
  EXPECT_EQ(matching(*registry_, {"IORegistryEntry", std::nullopt, {}}).size(), 7U);
}

TEST_F(LinuxIORegistryTest, ADictionaryMatchesByItsValues) {
  look("sata");
  Dictionary inner;
  inner.set("Medium Type", std::string("Solid State"));
  inner.set("Product Name", std::string("Example SSD 256G"));
  RegistryMatching conditions;
  conditions.properties.set("Device Characteristics", std::make_shared<const Dictionary>(inner));
  EXPECT_EQ(matching(*registry_, conditions).size(), 1U);
  inner.set("Product Name", std::string("another"));
  conditions.properties.set("Device Characteristics", std::make_shared<const Dictionary>(inner));
  EXPECT_TRUE(matching(*registry_, conditions).empty());
}

TEST_F(LinuxIORegistryTest, InvalidNumbersAreIgnored) {
  look("sata");
  tree_->add(
      "[sys/block/sdx]\nsize = 99999999999999999999\n[sys/block/sdx/device]\n"
      "[sys/block/sdy]\nsize = 18446744073709551615\n[sys/block/sdy/sdy1]\npartition = 4294967297\n"
      "[sys/block/sdy/sdy2]\npartition = two\n[sys/block/sdy/sdy3]\npartition = 0\n");
  EXPECT_TRUE(named(*registry_, "sdx").empty());
  EXPECT_GT(propertiesNamed("sdy").integer("Size"), 0);
  EXPECT_THAT(bsdNamesOf(walked(*registry_, kServicePlane)),
              testing::Not(testing::Contains(testing::StartsWith("sdy1"))));
  EXPECT_TRUE(named(*registry_, "sdy2").empty());
  EXPECT_TRUE(named(*registry_, "sdy3").empty());
}

TEST_F(LinuxIORegistryTest, AnEmptyMachineHasARootAndAPlatformEntry) {
  const TemporaryFolder empty;
  LinuxIORegistry registry(empty.path());
  EXPECT_EQ(walked(registry, kDeviceTreePlane).size(), 2U);
  EXPECT_TRUE(named(registry, "sda").empty());
}

TEST_F(LinuxIORegistryTest, AnUnknownPlaneCannotBeWalked) {
  look("sata");
  std::shared_ptr<RegistryIterator> iterator;
  EXPECT_NE(registry_->createIterator(0, "IOPower", iterator), kKernSuccess);
  EXPECT_EQ(iterator, nullptr);
}

}  // namespace
}  // namespace vorlix::test
