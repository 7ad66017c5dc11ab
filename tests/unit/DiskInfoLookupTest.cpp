// SPDX-License-Identifier: Apache-2.0
//
// lookup_disk_info(): both GUIDs and the offset of a partition.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "tests/unit/support/DiskFixture.h"
#include "tests/unit/support/StandardStreams.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kPartitionMessage = "partition UUID is 00112233445566778899AABBCCDDEEFF\n";
constexpr const char* kDiskMessage = "disk UUID is C12A7328F81F11D2BA4B00A0C93EC93B\n";
constexpr const char* kBlockSizeMessages = "Getting block size for device /dev/disk0Found blockSize: 512";
constexpr int64_t kOffset = 40 * 512;

class DiskInfoLookupTest : public DiskTest {
 protected:
  DiskInfoLookupTest() {
    machine.addDisk("disk0", 1000 * 512, 512);
    machine.addSlice("disk0", 3, 40, 100);
  }

  static Dictionary partition(const char* uuid = kPartitionText, int64_t base = kOffset) {
    return dictionaryOf({{"BSD Name", textValue("disk0s3")}, {"UUID", textValue(uuid)}, {"Base", Value(base)}});
  }

  static Dictionary disk(const char* uuid = kDiskText) { return dictionaryOf({{"UUID", textValue(uuid)}}); }

  int32_t lookUp(const char* name = "disk0s3") {
    return lookup_disk_info(name, diskGUID.data(), partitionGUID.data(), &offset);
  }

  void expectUntouched() const {
    EXPECT_EQ(diskGUID, ByteVector(18, 0x5A));
    EXPECT_EQ(partitionGUID, ByteVector(18, 0x5A));
    EXPECT_EQ(offset, -77);
  }

  ByteVector diskGUID = ByteVector(18, 0x5A);  // the functions fill 16 bytes; two more must stay
  ByteVector partitionGUID = ByteVector(18, 0x5A);
  int64_t offset = -77;
};

ByteVector withGuard(ByteVector bytes) {
  bytes.resize(18, 0x5A);
  return bytes;
}

TEST_F(DiskInfoLookupTest, RegistryGivesAllThree) {
  addService("partition", partition(), addService("disk", disk()));
  EXPECT_EQ(lookUp(), 0);
  EXPECT_EQ(partitionGUID, withGuard(kPartitionBytes));
  EXPECT_EQ(diskGUID, withGuard(kDiskBytes));
  EXPECT_EQ(offset, kOffset);
  EXPECT_EQ(log(), std::string(kPartitionMessage) + kDiskMessage);
  // The disk itself is not opened.
  EXPECT_THAT(machine.journal(),
              ElementsAre("registry port", "registry iterate IOService", "registry match BSD disk0s3"));
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(DiskInfoLookupTest, LowerCaseConvertsTheSameAndIsLoggedUnchanged) {
  addService("partition", partition("00112233-4455-6677-8899-aabbccddeeff"),
             addService("disk", disk("c12a7328-f81f-11d2-ba4b-00a0c93ec93b")));
  EXPECT_EQ(lookUp(), 0);
  EXPECT_EQ(partitionGUID, withGuard(kPartitionBytes));
  EXPECT_EQ(diskGUID, withGuard(kDiskBytes));
  EXPECT_EQ(log(),
            "partition UUID is 00112233445566778899aabbccddeeff\ndisk UUID is c12a7328f81f11d2ba4b00a0c93ec93b\n");
}

TEST_F(DiskInfoLookupTest, OffsetsHave64Bits) {
  const auto parent = addService("disk", disk());
  for (const int64_t base : {int64_t{0}, int64_t{1} << 42, int64_t{9223372036854775807}}) {
    const std::string name = "disk0s" + std::to_string(base);
    Dictionary properties = partition(kPartitionText, base);
    properties.set("BSD Name", name);
    addService("partition", properties, parent);
    EXPECT_EQ(lookUp(name.c_str()), 0);
    EXPECT_EQ(offset, base);
  }
}

TEST_F(DiskInfoLookupTest, NameThatMatchesNothingSucceedsAndChangesNothing) {
  addService("partition", partition(), addService("disk", disk()));
  EXPECT_EQ(lookUp("disk0s4"), 0);
  expectUntouched();
  EXPECT_EQ(log(), "");
  EXPECT_THAT(deviceLines(), IsEmpty());
}

TEST_F(DiskInfoLookupTest, PartitionWithoutUUIDReturnsMinusOne) {
  addService("partition", dictionaryOf({{"BSD Name", textValue("disk0s3")}, {"Base", Value(kOffset)}}),
             addService("disk", disk()));
  EXPECT_EQ(lookUp(), -1);
  expectUntouched();
  EXPECT_EQ(log(), "error getting uuid");
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(DiskInfoLookupTest, PartitionWhosePropertiesCannotBeReadHasNoUUID) {
  const auto entry = addService("partition", partition(), addService("disk", disk()));
  machine.failRegistry(RegistryCall::copyProperties, 5, entry);
  EXPECT_EQ(lookUp(), -1);
  expectUntouched();
  EXPECT_EQ(log(), "error getting uuid");
}

TEST_F(DiskInfoLookupTest, FailedSearchChangesNothing) {
  addService("partition", partition(), addService("disk", disk()));
  machine.failRegistry(RegistryCall::matchingServices, 5);
  static_cast<void>(lookUp());
  expectUntouched();
  EXPECT_EQ(log(), "");
}

TEST_F(DiskInfoLookupTest, LastOfSeveralServicesWins) {
  addService("first", partition("FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF", 1),
             addService("disk", disk("EEEEEEEE-EEEE-EEEE-EEEE-EEEEEEEEEEEE")));
  addService("second", partition(), addService("disk", disk()));
  EXPECT_EQ(lookUp(), 0);
  EXPECT_EQ(partitionGUID, withGuard(kPartitionBytes));
  EXPECT_EQ(diskGUID, withGuard(kDiskBytes));
  EXPECT_EQ(offset, kOffset);
  EXPECT_EQ(log(),
            "partition UUID is FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF\n"
            "disk UUID is EEEEEEEEEEEEEEEEEEEEEEEEEEEEEEEE\n" +
                std::string(kPartitionMessage) + kDiskMessage);
}

TEST_F(DiskInfoLookupTest, LaterServiceWithoutUUIDFailsAndTheFirstOnesValuesStay) {
  const auto parent = addService("disk", disk());
  addService("first", partition(), parent);
  addService("second", dictionaryOf({{"BSD Name", textValue("disk0s3")}}), parent);
  EXPECT_EQ(lookUp(), -1);
  EXPECT_EQ(partitionGUID, withGuard(kPartitionBytes));
  EXPECT_EQ(log(), std::string(kPartitionMessage) + kDiskMessage + "error getting uuid");
}

TEST_F(DiskInfoLookupTest, MissingMasterPortAndIteratorAreLoggedAndIgnored) {
  addService("partition", partition(), addService("disk", disk()));
  machine.failRegistry(RegistryCall::masterPort, 5);
  machine.failRegistry(RegistryCall::createIterator, static_cast<KernReturn>(0xE00002BC));
  EXPECT_EQ(lookUp(), 0);
  EXPECT_EQ(partitionGUID, withGuard(kPartitionBytes));
  EXPECT_EQ(log(), "IOMasterPort() failed: 5\nIORegistryCreateIterator() failed: e00002bc\n" +
                       std::string(kPartitionMessage) + kDiskMessage);
}

// ------------------------------------------------------------------------------- disk GUID from the disk's own header

TEST_F(DiskInfoLookupTest, ParentWithoutUUIDFallsBackToTheGPTOfTheWholeDisk) {
  addService("partition", partition(), addService("scheme", {}));
  machine.setBytes("disk0", 512, headerWithDiskGUID());
  EXPECT_EQ(lookUp(), 0);
  EXPECT_EQ(partitionGUID, withGuard(kPartitionBytes));
  EXPECT_EQ(diskGUID, withGuard(kDiskBytes));
  EXPECT_EQ(offset, kOffset);
  EXPECT_EQ(log(), std::string(kPartitionMessage) + kBlockSizeMessages);
  EXPECT_THAT(journalOf({"open ", "write ", "close "}), ElementsAre("open disk0 read", "close disk0"));
  EXPECT_EQ(machine.openCount(), 0U);
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(DiskInfoLookupTest, MissingOrUnreadableParentFallsBackToTheGPTAsWell) {
  const auto parent = addService("disk", disk());
  const auto entry = addService("partition", partition(), parent);
  machine.setBytes("disk0", 512, headerWithDiskGUID());
  machine.failRegistry(RegistryCall::copyProperties, 5, parent);
  EXPECT_EQ(lookUp(), 0);
  EXPECT_EQ(diskGUID, withGuard(kDiskBytes));

  diskGUID = ByteVector(18, 0x5A);
  machine.failRegistry(RegistryCall::parent, 5, entry);
  EXPECT_EQ(lookUp(), 0);
  EXPECT_EQ(diskGUID, withGuard(kDiskBytes));
  EXPECT_EQ(log(), std::string(kPartitionMessage) + kBlockSizeMessages + kPartitionMessage + kBlockSizeMessages);
}

TEST_F(DiskInfoLookupTest, DiskWithoutGPTLeavesTheDiskGUIDUntouchedAndSucceeds) {
  addService("partition", partition(), addService("scheme", {}));
  EXPECT_EQ(lookUp(), 0);
  EXPECT_EQ(diskGUID, ByteVector(18, 0x5A));
  EXPECT_EQ(partitionGUID, withGuard(kPartitionBytes));
  EXPECT_EQ(log(), std::string(kPartitionMessage) + kBlockSizeMessages);
}

TEST_F(DiskInfoLookupTest, DiskThatCannotBeOpenedStillSucceeds) {
  addService("partition", partition(), addService("scheme", {}));
  machine.fail("disk0", Operation::open, EACCES);
  EXPECT_EQ(lookUp(), 0);
  EXPECT_EQ(diskGUID, ByteVector(18, 0x5A));
  EXPECT_EQ(log(), std::string(kPartitionMessage) + "Error opening /dev/disk0\n" + kBlockSizeMessages);
}

TEST_F(DiskInfoLookupTest, PartitionWithoutWholeDiskReturnsMinusOne) {
  addService("partition", partition(), addService("scheme", {}));
  machine.hideWholeDisk("disk0s3");
  EXPECT_EQ(lookUp(), -1);
  EXPECT_EQ(diskGUID, ByteVector(18, 0x5A));
  EXPECT_EQ(log(), std::string(kPartitionMessage) + "error getting disk from slick disk0s3\n");
  EXPECT_THAT(deviceLines(), IsEmpty());
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(DiskInfoLookupTest, UnreachableDiskArbitrationUsesTheDigitsInTheWorkingBufferAsDevice) {
  addService("partition", partition(), addService("scheme", {}));
  machine.refuseSessions();
  OutputCapture output(STDOUT_FILENO);
  const int32_t result = lookUp();
  EXPECT_EQ(output.text(), "session NULL");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(diskGUID, ByteVector(18, 0x5A));
  EXPECT_EQ(log(), std::string(kPartitionMessage) +
                       "Error opening 00112233445566778899AABBCCDDEEFF\n"
                       "Getting block size for device 00112233445566778899AABBCCDDEEFF"
                       "Error getting number. Unknown volume size line:215Found blockSize: 0");
}

TEST_F(DiskInfoLookupTest, NullDiskGUIDReturnsMinusOneOnlyIfTheGPTWouldBeRead) {
  const auto scheme = addService("scheme", {});
  addService("partition", partition(), scheme);
  machine.setBytes("disk0", 512, headerWithDiskGUID());
  EXPECT_EQ(lookup_disk_info("disk0s3", nullptr, partitionGUID.data(), &offset), -1);
  EXPECT_EQ(log(),
            std::string(kPartitionMessage) + kBlockSizeMessages + "error converting /dev/disk0 to binary GUID\n");
  EXPECT_EQ(machine.openCount(), 0U);
}

TEST_F(DiskInfoLookupTest, NullNameMatchesNothing) {
  addService("partition", partition(), addService("disk", disk()));
  EXPECT_EQ(lookUp(nullptr), 0);
  expectUntouched();
}

TEST_F(DiskInfoLookupTest, HostileUUIDTextsStayWithinTheBuffers) {
  int number = 10;
  for (const std::string& text :
       {std::string(), std::string("1"), std::string(63, 'A'), std::string(5000, 'A'), std::string(5000, '-')}) {
    const std::string name = "disk0s" + std::to_string(number++);
    addService("partition", dictionaryOf({{"BSD Name", Value(name)}, {"UUID", Value(text)}, {"Base", Value(kOffset)}}),
               addService("disk", dictionaryOf({{"UUID", Value(text)}})));
    static_cast<void>(lookUp(name.c_str()));
    EXPECT_EQ(slice(partitionGUID, 16, 2), ByteVector(2, 0x5A));
    EXPECT_EQ(slice(diskGUID, 16, 2), ByteVector(2, 0x5A));
  }
}

}  // namespace
}  // namespace vorlix::test
