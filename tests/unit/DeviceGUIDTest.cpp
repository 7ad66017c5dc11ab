// SPDX-License-Identifier: Apache-2.0
//
// GUIDs of partitions and disks as bytes, and the whole disk of a slice.
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tests/unit/support/DiskFixture.h"
#include "tests/unit/support/StandardStreams.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using UUIDStringTest = DiskTest;
using WholeDiskTest = DiskTest;
using DiskGUIDTest = DiskTest;

const ByteVector kUntouched(16, 0x5A);

// -------------------------------------------------------------------------------------------------- GUID text to bytes

TEST_F(UUIDStringTest, TextBecomesMixedEndianBytesAndLosesItsDashes) {
  const struct {
    const char* text;
    ByteVector bytes;
    const char* left;
  } cases[] = {
      {kPartitionText, kPartitionBytes, "00112233445566778899AABBCCDDEEFF"},
      {kDiskText, kDiskBytes, "C12A7328F81F11D2BA4B00A0C93EC93B"},
      {"c12a7328-f81f-11d2-ba4b-00a0c93ec93b", kDiskBytes, "c12a7328f81f11d2ba4b00a0c93ec93b"},
      {"C12a7328F81f11D2Ba4b00a0C93ec93B", kDiskBytes, "C12a7328F81f11D2Ba4b00a0C93ec93B"},
      {"-C-12A7328F81F11D2BA4B00A0C93EC93B--", kDiskBytes, "C12A7328F81F11D2BA4B00A0C93EC93B"},
      {"C12A7328-F81F-11D2-BA4B-00A0C93EC93B and more", kDiskBytes, "C12A7328F81F11D2BA4B00A0C93EC93B and more"},
  };
  for (const auto& one : cases) {
    char text[64] = {};
    std::strcpy(text, one.text);
    ByteVector bytes(18, 0x5A);
    EXPECT_EQ(convert_uuid_string_to_bytes(text, bytes.data()), 0);
    EXPECT_EQ(slice(bytes, 0, 16), one.bytes) << one.text;
    EXPECT_EQ(slice(bytes, 16, 2), ByteVector(2, 0x5A)) << one.text;
    EXPECT_STREQ(text, one.left);
  }
  EXPECT_EQ(log(), "");
}

TEST_F(UUIDStringTest, ConvertingBackGivesTheText) {
  char text[64] = {};
  std::strcpy(text, kDiskText);
  uint8_t bytes[16];
  convert_uuid_string_to_bytes(text, bytes);
  char back[37];
  EXPECT_EQ(ConvertToGUID(bytes, back), 36);
  EXPECT_STREQ(back, kDiskText);
}

TEST_F(UUIDStringTest, InvalidPairsAreZeroAndAPairEndsAtItsFirstNonDigit) {
  char text[64] = "GG1GF0xy-0000-0000-0000-0000000000FF";
  uint8_t bytes[16];
  EXPECT_EQ(convert_uuid_string_to_bytes(text, bytes), 0);
  // The pairs "GG", "1G", "F0" and "xy" go to bytes 3, 2, 1 and 0.
  EXPECT_THAT(bytes, ElementsAre(0, 0xF0, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF));
}

TEST_F(UUIDStringTest, ShortTextIsNotRefused) {
  char text[64] = "AA-BBCC";  // the rest of the buffer is zero
  uint8_t bytes[16];
  std::memset(bytes, 0x5A, sizeof bytes);
  EXPECT_EQ(convert_uuid_string_to_bytes(text, bytes), 0);
  EXPECT_THAT(bytes, ElementsAre(0, 0xCC, 0xBB, 0xAA, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
  EXPECT_STREQ(text, "AABBCC");
}

// ------------------------------------------------------------------------------------------------------- whole disk

struct NameBuffer {
  std::array<char, 1024 + 16> bytes;
  NameBuffer() { bytes.fill('x'); }
  bool untouchedFrom(size_t offset) const {
    return std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(offset), bytes.end(),
                       [](char byte) { return byte == 'x'; });
  }
};

TEST_F(WholeDiskTest, SliceAndDiskAndPrefixedNamesGiveTheWholeDisk) {
  machine.addDisk("disk2", 1000 * 512, 512);
  machine.addSlice("disk2", 3, 40, 100);
  const struct {
    const char* name;
    int32_t prefix;
    const char* expected;
  } cases[] = {{"disk2s3", 0, "disk2"},       {"disk2s3", 1, "/dev/disk2"},  {"disk2", 0, "disk2"},
               {"disk2", 1, "/dev/disk2"},    {"/dev/disk2s3", 0, "disk2"},  {"/dev/disk2s3", 1, "/dev/disk2"},
               {"disk2s3", -1, "/dev/disk2"}, {"disk2s3", 256, "/dev/disk2"}};
  for (const auto& one : cases) {
    machine.clearJournal();
    NameBuffer buffer;
    OutputCapture output(STDOUT_FILENO);
    const int32_t result = disk_from_slice(buffer.bytes.data(), one.name, one.prefix);
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(result, 0) << one.name;
    EXPECT_STREQ(buffer.bytes.data(), one.expected) << one.name;
    EXPECT_TRUE(buffer.untouchedFrom(1024));
    EXPECT_THAT(machine.journal(), ElementsAre("session open", "session close")) << one.name;
  }
  EXPECT_EQ(log(), "");
}

TEST_F(WholeDiskTest, UnknownNameIsPrintedAndReturnsSuccessWithTheBufferUntouched) {
  for (const int32_t prefix : {0, 1}) {
    machine.clearJournal();
    NameBuffer buffer;
    OutputCapture output(STDOUT_FILENO);
    const int32_t result = disk_from_slice(buffer.bytes.data(), "disk9s1", prefix);
    EXPECT_EQ(output.text(), "disk NULL");
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(buffer.untouchedFrom(0));
    EXPECT_THAT(machine.journal(), ElementsAre("session open", "session close"));
  }
  EXPECT_EQ(log(), "");
}

TEST_F(WholeDiskTest, MissingSessionIsPrintedAndReturnsSuccessWithTheBufferUntouched) {
  machine.addDisk("disk2", 1000 * 512, 512);
  machine.refuseSessions();
  NameBuffer buffer;
  OutputCapture output(STDOUT_FILENO);
  const int32_t result = disk_from_slice(buffer.bytes.data(), "disk2", 1);
  EXPECT_EQ(output.text(), "session NULL");
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(buffer.untouchedFrom(0));
  EXPECT_EQ(log(), "");
}

TEST_F(WholeDiskTest, MissingWholeDiskReturnsMinusOneWithTheBufferUntouched) {
  machine.addDisk("disk2", 1000 * 512, 512);
  machine.addSlice("disk2", 3, 40, 100);
  machine.hideWholeDisk("disk2s3");
  NameBuffer buffer;
  OutputCapture output(STDOUT_FILENO);
  const int32_t result = disk_from_slice(buffer.bytes.data(), "disk2s3", 1);
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(buffer.untouchedFrom(0));
  EXPECT_THAT(machine.journal(), ElementsAre("session open", "session close"));
}

TEST_F(WholeDiskTest, LongNameStaysWithinTheBuffer) {
  const std::string longName(1500, 'd');
  machine.addDisk(longName, 1000 * 512, 512);
  for (const int32_t prefix : {0, 1}) {
    NameBuffer buffer;
    static_cast<void>(disk_from_slice(buffer.bytes.data(), longName.c_str(), prefix));
    EXPECT_TRUE(buffer.untouchedFrom(1024)) << prefix;
  }
}

// ---------------------------------------------------------------------------------------------- disk GUID from the GPT

std::string blockSizeMessages(const std::string& device, uint64_t size) {
  return "Getting block size for device " + device + "Found blockSize: " + std::to_string(size);
}

std::string noBlockSizeMessages(const std::string& device) {
  return "Getting block size for device " + device +
         "Error getting number. Unknown volume size line:215Found blockSize: 0";
}

TEST_F(DiskGUIDTest, HeaderIsInTheSecondBlock) {
  for (const uint32_t blockSize : {512U, 4096U}) {
    const std::string name = "disk" + std::to_string(blockSize);
    machine.addDisk(name, uint64_t{1000} * blockSize, blockSize);
    machine.setBytes(name, blockSize, headerWithDiskGUID());
    forgetLog();
    ByteVector guid(18, 0x5A);
    EXPECT_EQ(disk_guid(("/dev/" + name).c_str(), guid.data()), 0);
    EXPECT_EQ(slice(guid, 0, 16), kDiskBytes) << blockSize;
    EXPECT_EQ(slice(guid, 16, 2), ByteVector(2, 0x5A));
    EXPECT_EQ(log(), blockSizeMessages("/dev/" + name, blockSize));
    EXPECT_EQ(machine.openCount(), 0U);
  }
  EXPECT_THAT(machine.writes(), IsEmpty());
  EXPECT_THAT(journalOf({"open "}), ElementsAre("open disk512 read", "open disk4096 read"));
  EXPECT_EQ(keptOpenCount(), 0U);
}

TEST_F(DiskGUIDTest, AnyOtherSignatureLeavesTheOutputUntouched) {
  machine.addDisk("disk0", 1000 * 512, 512);
  for (size_t place = 0; place < 8; ++place) {
    ByteVector header = headerWithDiskGUID();
    header[place] = static_cast<uint8_t>(header[place] ^ 0x20);
    machine.setBytes("disk0", 512, header);
    ByteVector guid = kUntouched;
    EXPECT_EQ(disk_guid("/dev/disk0", guid.data()), 0) << place;
    EXPECT_EQ(guid, kUntouched) << place;
  }
  EXPECT_EQ(machine.openCount(), 0U);
}

TEST_F(DiskGUIDTest, UnknownBlockSizeMeansThatByteZeroIsRead) {
  machine.addDisk("disk0", 1000 * 512, 512);
  machine.hideBlockSize("disk0");
  machine.setBytes("disk0", 0, headerWithDiskGUID());
  ByteVector guid = kUntouched;
  EXPECT_EQ(disk_guid("/dev/disk0", guid.data()), 0);
  EXPECT_EQ(guid, kDiskBytes);
  EXPECT_EQ(log(), noBlockSizeMessages("/dev/disk0"));
}

TEST_F(DiskGUIDTest, DeviceThatCannotBeOpenedIsLoggedAndItsBlockSizeIsStillQueried) {
  ByteVector guid = kUntouched;
  EXPECT_EQ(disk_guid("/dev/disk9", guid.data()), -1);
  EXPECT_EQ(log(), "Error opening /dev/disk9\n" + noBlockSizeMessages("/dev/disk9"));
  EXPECT_EQ(guid, kUntouched);

  machine.addDisk("disk0", 1000 * 512, 512);
  machine.setBytes("disk0", 512, headerWithDiskGUID());
  machine.fail("disk0", Operation::open, EACCES);
  forgetLog();
  EXPECT_EQ(disk_guid("/dev/disk0", guid.data()), -1);
  EXPECT_EQ(log(), "Error opening /dev/disk0\n" + blockSizeMessages("/dev/disk0", 512));
  EXPECT_EQ(guid, kUntouched);
}

TEST_F(DiskGUIDTest, FailedReadLeavesTheOutputUntouchedAndIsNotReported) {
  machine.addDisk("disk0", 1000 * 512, 512);
  machine.setBytes("disk0", 512, headerWithDiskGUID());
  machine.fail("disk0", Operation::read, EIO);
  ByteVector guid = kUntouched;
  EXPECT_EQ(disk_guid("/dev/disk0", guid.data()), 0);
  EXPECT_EQ(guid, kUntouched);
  EXPECT_EQ(log(), blockSizeMessages("/dev/disk0", 512));
  EXPECT_EQ(machine.openCount(), 0U);
}

TEST_F(DiskGUIDTest, DeviceThatEndsBeforeTheHeaderLeavesTheOutputUntouched) {
  machine.addDisk("disk0", 512, 512);
  ByteVector guid = kUntouched;
  EXPECT_EQ(disk_guid("/dev/disk0", guid.data()), 0);
  EXPECT_EQ(guid, kUntouched);
}

TEST_F(DiskGUIDTest, FailedCloseIsTheResult) {
  machine.addDisk("disk0", 1000 * 512, 512);
  machine.setBytes("disk0", 512, headerWithDiskGUID());
  machine.fail("disk0", Operation::close, EIO);
  ByteVector guid = kUntouched;
  EXPECT_EQ(disk_guid("/dev/disk0", guid.data()), -1);
  EXPECT_EQ(guid, kDiskBytes);
  EXPECT_EQ(machine.openCount(), 0U);
}

}  // namespace
}  // namespace vorlix::test
