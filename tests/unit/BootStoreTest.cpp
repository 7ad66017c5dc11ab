// SPDX-License-Identifier: Apache-2.0
//
// Device elements of boot configuration stores. The bytes of the first test are those that a page about such elements
// shows for an installed system on an MBR disk (docs/boot-store.md names it); the others have the same layout.
#include <Vorlix/BootStore.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;

using ElementBytes = std::vector<uint8_t>;

// clang-format off
const ElementBytes kOnMBRDisk = {
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,               // options: none
    6, 0, 0, 0, 0, 0, 0, 0, 0x48, 0, 0, 0, 0, 0, 0, 0,            // a partition, flags, length
    0, 0, 0xF0, 0x15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,         // it begins at byte 0x15F00000
    0, 0, 0, 0, 1, 0, 0, 0,                                       // of a hard disk with an MBR
    0xF1, 0xA8, 0xEB, 0xB3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,   // its signature
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

const ElementBytes kOnGPTDisk = {
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    6, 0, 0, 0, 0, 0, 0, 0, 0x48, 0, 0, 0, 0, 0, 0, 0,
    0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,  // partition
    0, 0, 0, 0, 0, 0, 0, 0,
    0xDD, 0xDD, 0xDD, 0xDD, 0xDD, 0xDD, 0xDD, 0xDD, 0xDD, 0xDD, 0xDD, 0xDD, 0xDD, 0xDD, 0xDD, 0xDD,  // disk
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

// The head of a RAM disk from a file; the file's partition and its path follow.
const ElementBytes kRAMDiskHead = {
    0xC8, 0xDC, 0x19, 0x76, 0xFE, 0xFA, 0xD9, 0x11, 0xB4, 0x11, 0x00, 0x04, 0x76, 0xEB, 0xA2, 0x5F,  // options
    0, 0, 0, 0, 1, 0, 0, 0, 0x8A, 0, 0, 0, 0, 0, 0, 0,            // a disk, flags, length
    3, 0, 0, 0,                                                   // in memory
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,   // base, size, offset
    1, 0, 0, 0, 0x62, 0, 0, 0, 5, 0, 0, 0};                       // a file's path: version, length, kind
const ElementBytes kPath = {'\\', 0, 'b', 0, 'o', 0, 'o', 0, 't', 0, '.', 0, 0, 0};
// clang-format on

ElementBytes joined(std::initializer_list<ElementBytes> parts) {
  ElementBytes whole;
  for (const ElementBytes& part : parts) whole.insert(whole.end(), part.begin(), part.end());
  return whole;
}

// What stands behind the options, as it stands inside other devices.
ElementBytes nested(const ElementBytes& element) {
  return {element.begin() + 16, element.end()};
}

StorePartition gptPartition(uint8_t partition, uint8_t disk) {
  StorePartition result;
  result.partition.fill(partition);
  result.disk.fill(disk);
  return result;
}

TEST(BootStoreTest, PartitionsAreReadFromTheirElements) {
  EXPECT_THAT(partitionsOf(kOnMBRDisk), ElementsAre(mbrStorePartition(0x15F00000, 0xB3EBA8F1)));
  EXPECT_THAT(partitionsOf(kOnGPTDisk), ElementsAre(gptPartition(0x11, 0xDD)));
  EXPECT_THAT(partitionsOf(joined({kRAMDiskHead, nested(kOnGPTDisk), kPath})), ElementsAre(gptPartition(0x11, 0xDD)));
}

TEST(BootStoreTest, ElementsAreMadeFromPartitions) {
  EXPECT_EQ(partitionElement(mbrStorePartition(0x15F00000, 0xB3EBA8F1)), kOnMBRDisk);
  EXPECT_EQ(partitionElement(gptPartition(0x11, 0xDD)), kOnGPTDisk);
}

TEST(BootStoreTest, AnotherPartitionTakesThePlaceOfTheOld) {
  const StorePartition other = gptPartition(0x22, 0xEE);
  EXPECT_EQ(elementWithPartition(kOnGPTDisk, other), partitionElement(other));
  EXPECT_EQ(elementWithPartition(kOnMBRDisk, other), partitionElement(other));
  EXPECT_EQ(elementWithPartition(kOnGPTDisk, mbrStorePartition(0x15F00000, 0xB3EBA8F1)), kOnMBRDisk);
  EXPECT_EQ(elementWithPartition(joined({kRAMDiskHead, nested(kOnMBRDisk), kPath}), other),
            joined({kRAMDiskHead, nested(partitionElement(other)), kPath}));
}

TEST(BootStoreTest, OtherDevicesStay) {
  ElementBytes boot = kOnGPTDisk;
  boot[0x10] = 5;  // the device that was started from
  ElementBytes oddScheme = kOnGPTDisk;
  oddScheme[0x34] = 2;
  ElementBytes oddDisk = kOnGPTDisk;
  oddDisk[0x30] = 6;  // a virtual disk
  ElementBytes oddLength = kOnGPTDisk;
  oddLength[0x18] = 0x8A;
  const ElementBytes cut(kOnGPTDisk.begin(), kOnGPTDisk.end() - 1);
  const StorePartition other = gptPartition(0x22, 0xEE);
  for (const ElementBytes& element : {boot, oddScheme, oddDisk, oddLength, cut, ElementBytes(), ElementBytes(15)}) {
    EXPECT_THAT(partitionsOf(element), IsEmpty());
    EXPECT_EQ(elementWithPartition(element, other), element);
  }
}

TEST(BootStoreTest, APartitionInAVirtualDiskStaysAndThatOfItsFileChanges) {
  ElementBytes outer(kOnGPTDisk.begin(), kOnGPTDisk.end() - 16);
  outer[0x18] = 0xAE;  // the descriptor of the file is a part of it
  outer[0x30] = 6;
  const ElementBytes file = {0, 0, 0, 0, 0, 0, 0, 0, 0x76, 0, 0, 0, 0, 0, 0, 0,
                             5, 0, 0, 0, 1, 0, 0, 0, 0x62, 0, 0, 0, 5, 0, 0, 0};
  const ElementBytes element = joined({outer, file, nested(kOnMBRDisk), kPath});
  EXPECT_THAT(partitionsOf(element), ElementsAre(mbrStorePartition(0x15F00000, 0xB3EBA8F1)));
  EXPECT_EQ(elementWithPartition(element, gptPartition(0x22, 0xEE)),
            joined({outer, file, nested(partitionElement(gptPartition(0x22, 0xEE))), kPath}));
}

TEST(BootStoreTest, TheSystemPartitionIsForWhatStartsBeforeWindows) {
  for (const uint32_t type : {0x10100001U, 0x10100002U, 0x10200005U, 0x10300006U, 0x10400008U}) {
    EXPECT_EQ(storePlaceOf(type), StorePlace::systemPartition) << std::hex << type;
  }
  for (const uint32_t type : {0x10200003U, 0x10200004U, 0x30000000U, 0x20100000U, 0U}) {
    EXPECT_EQ(storePlaceOf(type), StorePlace::windowsVolume) << std::hex << type;
  }
}

constexpr const char* kManagerID = "{9dea862c-5cdd-4e70-acc1-f32b344d4795}";
constexpr const char* kLoaderID = "{00000000-0000-0000-0000-00000000000a}";

StoreElement elementAt(uint32_t type, uint64_t offset, const ElementBytes& data) {
  return {type, 3, offset, data};
}

class SettingPartitions : public testing::Test {
 protected:
  // A store with the data of three elements at 1000, 2000 and 3000.
  SettingPartitions() : store_(5000, 0x5A) {
    put(1000, kOnGPTDisk);
    put(2000, kOnMBRDisk);
    put(3000, kOnGPTDisk);
    objects_ = {
        {kManagerID, kStoreBootManager, {elementAt(0x11000001, 1000, kOnGPTDisk)}},
        {kLoaderID, kStoreLoader, {elementAt(0x11000001, 2000, kOnMBRDisk), elementAt(0x21000001, 3000, kOnGPTDisk)}}};
    targets_ = {gptPartition(0xEF, 0xAA), gptPartition(0x33, 0xAA)};
  }

  void put(size_t offset, const ElementBytes& bytes) {
    std::copy(bytes.begin(), bytes.end(), store_.begin() + static_cast<std::ptrdiff_t>(offset));
  }
  std::optional<std::string> set() { return setStorePartitions(store_, objects_, targets_, result_); }

  ElementBytes store_;
  std::vector<StoreObject> objects_;
  StoreTargets targets_;
  StoreWithPartitions result_;
};

TEST_F(SettingPartitions, EveryDeviceGetsThePartitionOfItsObject) {
  ASSERT_EQ(set(), std::nullopt);
  put(1000, partitionElement(targets_.system));
  put(2000, partitionElement(targets_.windows));
  put(3000, partitionElement(targets_.windows));
  EXPECT_EQ(result_.store, store_);
  ASSERT_THAT(result_.devices, SizeIs(3));
  EXPECT_EQ(result_.devices[0].place, StorePlace::systemPartition);
  EXPECT_EQ(result_.devices[1].place, StorePlace::windowsVolume);
  EXPECT_EQ(result_.devices[1].object, kLoaderID);
  EXPECT_EQ(result_.devices[2].element, 0x21000001U);
  EXPECT_THAT(result_.devices[2].before, ElementsAre(gptPartition(0x11, 0xDD)));
}

TEST_F(SettingPartitions, ElementsOfOtherFormsAndTypesStay) {
  objects_[1].elements[0].type = 0x12000001;
  objects_[1].elements[1].valueType = 1;
  ASSERT_EQ(set(), std::nullopt);
  put(1000, partitionElement(targets_.system));
  EXPECT_EQ(result_.store, store_);
  EXPECT_THAT(result_.devices, SizeIs(1));
}

TEST_F(SettingPartitions, AStoreWithoutPartitionsIsRefused) {
  for (StoreObject& object : objects_) object.elements.clear();
  EXPECT_THAT(set(), Optional(HasSubstr("no device element names a partition")));
}

TEST_F(SettingPartitions, AListOfAnotherStoreIsRefused) {
  for (const uint64_t offset : {uint64_t{0}, uint64_t{1004}, uint64_t{4990}, uint64_t{5001}, ~uint64_t{0}}) {
    objects_[0].elements[0].offset = offset;
    EXPECT_THAT(set(), Optional(HasSubstr("not in one piece"))) << offset;
  }
}

TEST_F(SettingPartitions, SharedBytesAreRefused) {
  objects_[1].elements[1].offset = 1000;
  EXPECT_THAT(set(), Optional(HasSubstr("shares its bytes")));
}

TEST(StoreListingTest, ListsAreRead) {
  const auto objects = parseStoreListing(
      "object {9dea862c-5cdd-4e70-acc1-f32b344d4795} 10100002\n"
      "element 11000001 3 5012 0600ff\n"
      "element 12000004 1 0 \n"
      "object {00000000-0000-0000-0000-00000000000a} 00000000\n"
      "end\n");
  ASSERT_TRUE(objects);
  ASSERT_THAT(*objects, SizeIs(2));
  EXPECT_EQ((*objects)[0].identifier, kManagerID);
  EXPECT_EQ((*objects)[0].type, kStoreBootManager);
  ASSERT_THAT((*objects)[0].elements, SizeIs(2));
  EXPECT_EQ((*objects)[0].elements[0].type, 0x11000001U);
  EXPECT_EQ((*objects)[0].elements[0].valueType, 3U);
  EXPECT_EQ((*objects)[0].elements[0].offset, 5012U);
  EXPECT_THAT((*objects)[0].elements[0].data, ElementsAre(6, 0, 0xFF));
  EXPECT_THAT((*objects)[0].elements[1].data, IsEmpty());
  EXPECT_THAT((*objects)[1].elements, IsEmpty());
}

TEST(StoreListingTest, OtherTextsAreRefused) {
  const std::string object = std::string("object ") + kManagerID + " 10100002\n";
  for (const std::string& text :
       {std::string(), std::string("end"), object, object + "end\nmore\n",
        std::string("element 11000001 3 0 00\nend\n"), object + "element 11000001 3 0 0\nend\n",
        object + "element 11000001 3 x 00\nend\n", object + "element 1100000g 3 0 00\nend\n",
        object + "element 11000001 3 0 00 1\nend\n", object + "element 111000001 3 0 00\nend\n",
        std::string("object {} 10100002\nend\n"), std::string("\nend\n")}) {
    EXPECT_EQ(parseStoreListing(text), std::nullopt) << text;
  }
}

TEST(StoreListingTest, EditsAreLines) {
  using Kind = StoreEdit::Kind;
  EXPECT_EQ(storeEditLines({{Kind::removeObject, kLoaderID, 0, 0, {}},
                            {Kind::setObject, kManagerID, 0x10100002, 0, {}},
                            {Kind::setElement, kManagerID, 0x25000004, 3, {0x1E, 0}},
                            {Kind::removeElement, kManagerID, 0x45000001, 0, {}}}),
            "remove {00000000-0000-0000-0000-00000000000a}\n"
            "object {9dea862c-5cdd-4e70-acc1-f32b344d4795} 10100002\n"
            "set {9dea862c-5cdd-4e70-acc1-f32b344d4795} 25000004 3 1e00\n"
            "unset {9dea862c-5cdd-4e70-acc1-f32b344d4795} 45000001\n");
}

}  // namespace
}  // namespace vorlix::test
