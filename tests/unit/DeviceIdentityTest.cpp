// SPDX-License-Identifier: Apache-2.0
//
// Facts about a device from the registry: its path and its partition number.
#include <Vorlix/QDSDiskRegistry.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "tests/unit/support/DiskFixture.h"
#include "tests/unit/support/StandardStreams.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using EjectableMediaTest = DiskTest;
using DeviceFilePathTest = DiskTest;
using PartitionNumberTest = DiskTest;

const std::string kGetting = "Getting partition number for identifier from IOKit";

// ------------------------------------------------------------------------------------------------ ejectable media

TEST_F(EjectableMediaTest, NothingIsFoundOnANormalSystem) {
  addService("Disc", dictionaryOf({{"BSD Name", textValue("disk1")}, {"Ejectable", Value(true)}}), {}, "IOCDMedia");
  std::shared_ptr<RegistryIterator> iterator;
  OutputCapture output(STDOUT_FILENO);
  const int32_t result = MyFindEjectableMedia(&iterator);
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(result, 0);
  ASSERT_NE(iterator, nullptr);
  EXPECT_EQ(iterator->next(), nullptr);
  EXPECT_THAT(machine.journal(), ElementsAre("registry port", "registry match class IOUserClientClass"));
  EXPECT_EQ(log(), "");
}

TEST_F(EjectableMediaTest, TheRequestedClassIsIterated) {
  addService("Client", dictionaryOf({{"Mark", textValue("this one")}}), {}, "IOUserClientClass");
  std::shared_ptr<RegistryIterator> iterator;
  EXPECT_EQ(MyFindEjectableMedia(&iterator), 0);
  ASSERT_NE(iterator, nullptr);
  const auto entry = iterator->next();
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->property("Mark"), textValue("this one"));
  EXPECT_EQ(iterator->next(), nullptr);
}

TEST_F(EjectableMediaTest, MissingMasterPortIsPrintedAndEndsTheSearch) {
  for (const KernReturn code : {5, -536870206}) {
    machine.clearJournal();
    machine.failRegistry(RegistryCall::masterPort, code);
    std::shared_ptr<RegistryIterator> iterator;
    OutputCapture output(STDOUT_FILENO);
    const int32_t result = MyFindEjectableMedia(&iterator);
    EXPECT_EQ(output.text(), "IOMasterPort returned " + std::to_string(code) + "\n");
    EXPECT_EQ(result, code);
    EXPECT_EQ(iterator, nullptr);
    EXPECT_THAT(journalOf({"registry match"}), IsEmpty());
    EXPECT_EQ(log(), "");
  }
}

TEST_F(EjectableMediaTest, FailedSearchIsPrinted) {
  machine.failRegistry(RegistryCall::matchingServices, 5);
  std::shared_ptr<RegistryIterator> iterator;
  OutputCapture output(STDOUT_FILENO);
  const int32_t result = MyFindEjectableMedia(&iterator);
  EXPECT_EQ(output.text(), "No ejectable CD media found.\n kernResult = 5\n");
  EXPECT_EQ(result, 5);
  EXPECT_EQ(log(), "");
}

TEST_F(EjectableMediaTest, NullOutPointerIsPrintedAndReturnsSuccess) {
  OutputCapture output(STDOUT_FILENO);
  const int32_t result = MyFindEjectableMedia(nullptr);
  EXPECT_EQ(output.text(), "No ejectable CD media found.\n kernResult = 0\n");
  EXPECT_EQ(result, 0);
}

// ---------------------------------------------------------------------------------------------- path of a device file

class FakeEntry : public RegistryEntry {
 public:
  explicit FakeEntry(Dictionary properties) : properties_(std::move(properties)) {}
  std::optional<Value> property(const std::string& key) override { return properties_.value(key); }
  KernReturn copyProperties(std::optional<Dictionary>& properties) override {
    properties = properties_;
    return kKernSuccess;
  }
  KernReturn parent(const std::string&, std::shared_ptr<RegistryEntry>&) override { return kKernFailure; }
  KernReturn path(const std::string&, std::string&) override { return kKernFailure; }

 private:
  Dictionary properties_;
};

std::shared_ptr<RegistryEntry> entryNamed(const char* name) {
  return std::make_shared<FakeEntry>(dictionaryOf({{"BSD Name", textValue(name)}}));
}

TEST_F(DeviceFilePathTest, PrefixIsPrependedToTheName) {
  char path[1024];
  std::memset(path, 'x', sizeof path);
  EXPECT_EQ(MyGetDeviceFilePath(entryNamed("disk0s3"), path, sizeof path), 0);
  EXPECT_STREQ(path, "/dev/disk0s3");
  EXPECT_EQ(log(), "");
}

TEST_F(DeviceFilePathTest, ResultMayFillTheBufferToTheLastByteAndNoFurther) {
  const auto entry = entryNamed("disk0s3");  // "/dev/disk0s3" and its NUL are 13 bytes
  for (size_t size = 0; size <= 16; ++size) {
    std::array<char, 32> buffer;
    buffer.fill('x');
    const int32_t result = MyGetDeviceFilePath(entry, buffer.data(), size);
    EXPECT_EQ(result, size >= 13 ? 0 : 5) << size;
    for (size_t i = size; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], 'x') << size << " at " << i;
    if (size >= 13) {
      EXPECT_STREQ(buffer.data(), "/dev/disk0s3") << size;
    }
  }
}

TEST_F(DeviceFilePathTest, EntryWithoutNameGivesAnEmptyPath) {
  char path[16] = "untouched";
  EXPECT_EQ(MyGetDeviceFilePath(std::make_shared<FakeEntry>(Dictionary()), path, sizeof path), 5);
  EXPECT_STREQ(path, "");
}

TEST_F(DeviceFilePathTest, NullEntryGivesAnEmptyPath) {
  char path[16] = "untouched";
  EXPECT_EQ(MyGetDeviceFilePath(nullptr, path, sizeof path), 5);
  EXPECT_STREQ(path, "");
}

TEST_F(DeviceFilePathTest, NameOutsideASCIIIsRefused) {
  char path[64] = "untouched";
  EXPECT_EQ(MyGetDeviceFilePath(entryNamed("disk\xC3\xBC"), path, sizeof path), 5);
}

TEST_F(DeviceFilePathTest, NameThatIsNotAStringIsRefused) {
  char path[64] = "untouched";
  const auto entry = std::make_shared<FakeEntry>(dictionaryOf({{"BSD Name", Value(int64_t{3})}}));
  EXPECT_EQ(MyGetDeviceFilePath(entry, path, sizeof path), 5);
}

TEST_F(DeviceFilePathTest, NoReferenceToTheEntryIsKept) {
  const auto entry = entryNamed("disk0");
  char path[64];
  EXPECT_EQ(MyGetDeviceFilePath(entry, path, sizeof path), 0);
  EXPECT_EQ(entry.use_count(), 1);
}

// ------------------------------------------------------------------------------------------------- partition number

Dictionary partition(const char* name, int64_t number) {
  return dictionaryOf({{"BSD Name", textValue(name)}, {"Partition ID", Value(number)}});
}

TEST_F(PartitionNumberTest, DeviceTreeIsSearchedFirst) {
  machine.addRegistryEntry("three", "IOMedia", partition("disk0s3", 3), {{kDeviceTreePlane, root()}});
  addService("other", partition("disk0s3", 7));
  EXPECT_EQ(partitionForDeviceIdentifier("disk0s3"), 3);
  EXPECT_EQ(log(), std::string(kGetting) + "Found partition number: 3");
  EXPECT_THAT(machine.journal(), ElementsAre("registry port", "registry iterate IODeviceTree"));
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(PartitionNumberTest, ServicePlaneIsSearchedIfTheDeviceTreeHasNoMatch) {
  addService("three", partition("disk0s3", 3));
  EXPECT_EQ(partitionForDeviceIdentifier("disk0s3"), 3);
  EXPECT_EQ(log(), std::string(kGetting) + kGetting + "Found partition number: 3");
  EXPECT_THAT(machine.journal(), ElementsAre("registry port", "registry iterate IODeviceTree", "registry port",
                                             "registry iterate IOService"));
}

TEST_F(PartitionNumberTest, NumberZeroInTheDeviceTreeCountsAsNotFound) {
  machine.addRegistryEntry("zero", "IOMedia", partition("disk0s3", 0), {{kDeviceTreePlane, root()}});
  addService("four", partition("disk0s3", 4));
  EXPECT_EQ(partitionForDeviceIdentifier("disk0s3"), 4);
  EXPECT_EQ(log(), std::string(kGetting) + "Found partition number: 0" + kGetting + "Found partition number: 4");
}

TEST_F(PartitionNumberTest, AnyOtherNumberInTheDeviceTreeIsReturned) {
  machine.addRegistryEntry("odd", "IOMedia", partition("disk0s3", -1), {{kDeviceTreePlane, root()}});
  addService("four", partition("disk0s3", 4));
  EXPECT_EQ(partitionForDeviceIdentifier("disk0s3"), -1);
  EXPECT_EQ(log(), std::string(kGetting) + "Found partition number: -1");
}

TEST_F(PartitionNumberTest, UnknownNameReturnsZeroAfterBothPlanes) {
  addService("three", partition("disk0s3", 3));
  EXPECT_EQ(partitionForDeviceIdentifier("disk0s4"), 0);
  EXPECT_EQ(log(), std::string(kGetting) + kGetting);
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(PartitionNumberTest, OnlyTheGivenPlaneIsSearched) {
  addService("three", partition("disk0s3", 3));
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("disk0s3", kDeviceTreePlane), 0);
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("disk0s3", kServicePlane), 3);
  EXPECT_EQ(log(), std::string(kGetting) + kGetting + "Found partition number: 3");
  EXPECT_THAT(machine.journal(), ElementsAre("registry port", "registry iterate IODeviceTree", "registry port",
                                             "registry iterate IOService"));
}

TEST_F(PartitionNumberTest, DeepEntriesAreFound) {
  RegistryEntryID above = root();
  for (int level = 0; level < 12; ++level) above = addService("level", {}, above);
  addService("deep", partition("disk0s3", 3), above);
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("disk0s3", kServicePlane), 3);
}

TEST_F(PartitionNumberTest, NamesAreComparedWholeAndWithoutRegardToCase) {
  addService("three", partition("disk0s3", 3));
  addService("thirty-two", partition("Disk0S32", 32));
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("DISK0s3", kServicePlane), 3);
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("disk0s32", kServicePlane), 32);
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("disk0s", kServicePlane), 0);
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("disk0s33", kServicePlane), 0);
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("", kServicePlane), 0);
}

TEST_F(PartitionNumberTest, EntryWithoutPartitionNumberIsSkipped) {
  addService("nameOnly", dictionaryOf({{"BSD Name", textValue("disk0s3")}}));
  addService("numberOnly", dictionaryOf({{"Partition ID", Value(int64_t{9})}}));
  addService("three", partition("disk0s3", 3));
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("disk0s3", kServicePlane), 3);
  EXPECT_EQ(log(), std::string(kGetting) + "Found partition number: 3");
}

TEST_F(PartitionNumberTest, NumbersAreSignedAndHaveSixteenBits) {
  for (const int number : {1, 128, 32767, -1, -32768}) {
    const std::string name = "disk0s" + std::to_string(number);
    addService(name, partition(name.c_str(), number));
    forgetLog();
    EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane(name.c_str(), kServicePlane), number);
    EXPECT_EQ(log(), std::string(kGetting) + "Found partition number: " + std::to_string(number));
  }
}

TEST_F(PartitionNumberTest, NumberThatDoesNotFitIsLoggedWithAFixedNumber) {
  addService("large", partition("disk0s3", 32768));
  const int32_t result = partitionForDeviceIdentifierOnGivenPlane("disk0s3", kServicePlane);
  EXPECT_GE(result, -32768);
  EXPECT_LE(result, 32767);
  EXPECT_EQ(log(), std::string(kGetting) + "Could not get number from CFNumber 170" +
                       "Found partition number: " + std::to_string(result));
}

TEST_F(PartitionNumberTest, PartitionNumberStoredAsTextReturnsZero) {
  addService("text", dictionaryOf({{"BSD Name", textValue("disk0s3")}, {"Partition ID", textValue("3")}}));
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("disk0s3", kServicePlane), 0);
  EXPECT_EQ(log(), std::string(kGetting) + "Could not get number from CFNumber 170Found partition number: 0");
}

TEST_F(PartitionNumberTest, MissingMasterPortIsOnlyLogged) {
  addService("three", partition("disk0s3", 3));
  machine.failRegistry(RegistryCall::masterPort, 5);
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("disk0s3", kServicePlane), 3);
  EXPECT_EQ(log(), kGetting + "IOMasterPort() failed with error %{errno}d" + "Found partition number: 3");
}

TEST_F(PartitionNumberTest, MissingIteratorIsLoggedAndFindsNothing) {
  addService("three", partition("disk0s3", 3));
  machine.failRegistry(RegistryCall::createIterator, 5);
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("disk0s3", kServicePlane), 0);
  EXPECT_EQ(log(), kGetting + "IORegistryCreateIterator() failed with error %{errno}d");
}

TEST_F(PartitionNumberTest, EntryWhosePropertiesCannotBeReadIsLoggedAndSkipped) {
  const RegistryEntryID broken = addService("broken", partition("disk0s3", 7));
  addService("three", partition("disk0s3", 3));
  machine.failRegistry(RegistryCall::copyProperties, 5, broken);
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("disk0s3", kServicePlane), 3);
  EXPECT_EQ(log(),
            kGetting + "IORegistryEntryCreateCFProperties failed with error %{errno}d" + "Found partition number: 3");
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(PartitionNumberTest, EntryWithoutAnyPropertiesIsLoggedAndSkipped) {
  const RegistryEntryID bare = addService("bare", partition("disk0s3", 7));
  addService("three", partition("disk0s3", 3));
  machine.failRegistry(RegistryCall::copyProperties, 0, bare);  // success, but without properties
  EXPECT_EQ(partitionForDeviceIdentifierOnGivenPlane("disk0s3", kServicePlane), 3);
  EXPECT_EQ(log(),
            kGetting + "IORegistryEntryCreateCFProperties failed with error %{errno}d" + "Found partition number: 3");
}

}  // namespace
}  // namespace vorlix::test
