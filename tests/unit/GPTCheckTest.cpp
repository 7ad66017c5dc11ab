// SPDX-License-Identifier: Apache-2.0
//
// The findings about damaged GPTs.
#include <Vorlix/GPTCheck.h>
#include <gmock/gmock.h>
#include "foundation/GUIDPartitionTable.h"

#include "tests/unit/support/SoundGPT.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class GPTCheck : public testing::Test, protected SoundGPT {
 protected:
  GPTReport report() const {
    const auto read = [this](uint64_t offset, std::span<uint8_t> to) {
      if (offset >= bytes.size()) return size_t{0};
      const size_t count = std::min<size_t>(to.size(), bytes.size() - offset);
      std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), count, to.begin());
      return count;
    };
    return checkGPT(read, bytes.size(), 512);
  }

  std::vector<std::string> codes() const {
    std::vector<std::string> result;
    for (const GPTFinding& finding : report().findings) result.push_back(finding.code);
    return result;
  }
};

TEST(CRC32, MatchesThePublishedCheckValue) {
  // Catalogues of checksums give the value of each algorithm for the message "123456789".
  const ByteVector message = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(crc32(message), 0xCBF43926U);
  EXPECT_EQ(crc32({}), 0U);
  const std::span<const uint8_t> whole(message);
  EXPECT_EQ(crc32(whole.subspan(4), crc32(whole.first(4))), 0xCBF43926U);
}

TEST_F(GPTCheck, ASoundTableHasNoFindings) {
  const GPTReport found = report();
  EXPECT_THAT(codes(), IsEmpty());
  EXPECT_EQ(found.headerLBA, 1U);
  ASSERT_EQ(found.entries.size(), 128U);
  EXPECT_EQ(found.entries[1].first_lba, 100U);
}

TEST_F(GPTCheck, ADiskWithoutAProtectiveMBRNeedsNoGPT) {
  bytes.assign(kBlocks * 512, 0);
  EXPECT_THAT(codes(), IsEmpty());
  EXPECT_FALSE(report().headerLBA);
  put(bytes, 510, {0x55, 0xAA});
  EXPECT_THAT(codes(), IsEmpty());
}

TEST_F(GPTCheck, BothHeadersMissing) {
  erase(1);
  erase(kLast);
  EXPECT_THAT(codes(), ElementsAre("gpt-missing"));
  EXPECT_FALSE(report().headerLBA);
}

TEST_F(GPTCheck, OnlyTheBackupHeaderRemains) {
  erase(1);
  EXPECT_THAT(codes(), ElementsAre("primary-missing"));
  EXPECT_EQ(report().headerLBA, kLast);
  EXPECT_EQ(report().entries[1].last_lba, 149U);
  bytes[kBackupEntries * 512 + 300] ^= 1;
  EXPECT_THAT(codes(), ElementsAre("primary-missing", "entries-checksum"));
}

TEST_F(GPTCheck, ADamagedOrStaleBackupHeaderIsIgnored) {
  erase(1);
  put(bytes, 446, {0x80, 0x20, 0x21, 0x00, 0x07, 0xFE, 0xFF, 0xFF, 40, 0, 0, 0, 60, 0, 0, 0});
  EXPECT_FALSE(report().headerLBA);  // the disk has another MBR
  put(bytes, 446, ByteVector(66));
  EXPECT_EQ(report().headerLBA, kLast);  // there is no MBR
  bytes[kLast * 512 + 40] ^= 1;
  EXPECT_FALSE(report().headerLBA);
}

TEST_F(GPTCheck, HeaderChecksumLocationAndSize) {
  bytes[512 + 57] ^= 1;  // the disk GUID
  EXPECT_THAT(codes(), UnorderedElementsAre("header-checksum", "backup-differs"));
  seal(1, [](ByteVector& header) { putLittleEndian(header, 24, 8, 2); });
  EXPECT_THAT(codes(), UnorderedElementsAre("header-place", "backup-differs"));
  for (const uint32_t size : {0U, 91U, 513U, 0xFFFFFFFFU}) {
    seal(1);
    putLittleEndian(bytes, 512 + 12, 4, size);
    EXPECT_THAT(codes(), ElementsAre("header-size")) << size;
  }
}

TEST_F(GPTCheck, EntriesChecksum) {
  bytes[1024 + 57] ^= 1;  // in the name of the first entry
  EXPECT_THAT(codes(), ElementsAre("entries-checksum"));
  bytes[1024 + 57] ^= 1;
  bytes[kBackupEntries * 512 + 57] ^= 1;
  EXPECT_THAT(codes(), ElementsAre("backup-entries"));
}

TEST_F(GPTCheck, TheBackupHeader) {
  erase(kLast);
  EXPECT_THAT(codes(), ElementsAre("backup-missing"));
  seal(kLast);
  bytes[kLast * 512 + 57] ^= 1;
  EXPECT_THAT(codes(), ElementsAre("backup-damaged"));
  seal(kLast, [](ByteVector& header) { putLittleEndian(header, 24, 8, kLast - 1); });
  EXPECT_THAT(codes(), ElementsAre("backup-damaged"));
  const size_t kFields[] = {32, 40, 48, 56, 84};  // the other header, the usable LBAs, the disk GUID, the entry size
  for (const size_t field : kFields) {
    seal(kLast, [&](ByteVector& header) { header[field] ^= 1; });
    EXPECT_THAT(codes(), ElementsAre("backup-differs")) << field;
  }
}

TEST_F(GPTCheck, ABackupHeaderBeforeTheLastBlockIsAccepted) {
  bytes.resize(bytes.size() + 512 * 100);
  EXPECT_THAT(codes(), IsEmpty());
}

TEST_F(GPTCheck, ATruncatedDisk) {
  bytes.resize(200 * 512);
  EXPECT_THAT(codes(), ElementsAre("disk-truncated", "backup-missing"));
  bytes.resize(120 * 512);
  EXPECT_THAT(codes(), ElementsAre("disk-truncated", "backup-missing", "entry-beyond-disk"));
  bytes.resize(5 * 512);
  EXPECT_THAT(codes(), testing::Contains("disk-truncated"));
  bytes.resize(512 + 100);
  EXPECT_EQ(report().headerLBA, 1U);
  bytes.resize(100);
  EXPECT_FALSE(report().headerLBA);
}

TEST_F(GPTCheck, UsableRange) {
  sealBoth(40, 8, 1);
  EXPECT_THAT(codes(), testing::Contains("usable-range"));
  sealBoth(48, 8, kLast);
  EXPECT_THAT(codes(), testing::Contains("usable-range"));
  sealBoth(48, 8, 33);
  EXPECT_THAT(codes(), testing::Contains("usable-range"));
}

TEST_F(GPTCheck, EntrySizeAndCount) {
  sealBoth(84, 4, 256);
  EXPECT_THAT(codes(), ElementsAre("entry-size"));
  for (const uint32_t count : {129U, 65537U, 0xFFFFFFFFU}) {
    sealBoth(80, 4, count);
    EXPECT_THAT(codes(), testing::Contains("entry-count")) << count;
    EXPECT_LE(report().entries.size(), kMaximumEntries);
  }
  sealBoth(80, 4, 0);
  EXPECT_EQ(report().entries.size(), 4U);
}

TEST_F(GPTCheck, EntriesBeyondTheDisk) {
  for (const uint64_t lba : {kBlocks, uint64_t{1} << 55, uint64_t{1} << 63, ~uint64_t{0}}) {
    seal(1, [&](ByteVector& header) { putLittleEndian(header, 72, 8, lba); });
    EXPECT_THAT(codes(), ElementsAre("entries-beyond-disk")) << lba;
  }
}

TEST_F(GPTCheck, EachEntry) {
  const ByteVector efi = entryBytes(kEFISystemType, 40, 99);
  setEntries({efi, entryBytes(kBasicDataType, 150, 149)});
  EXPECT_THAT(codes(), ElementsAre("entry-reversed"));
  setEntries({efi, entryBytes(kBasicDataType, 33, 39)});
  EXPECT_THAT(codes(), ElementsAre("entry-outside"));
  setEntries({efi, entryBytes(kBasicDataType, 200, kBackupEntries)});
  EXPECT_THAT(codes(), ElementsAre("entry-outside"));
  setEntries({efi, entryBytes(kBasicDataType, 200, kBlocks)});
  EXPECT_THAT(codes(), ElementsAre("entry-beyond-disk"));
  setEntries({efi, entryBytes(kUnusedType, 1, ~uint64_t{0})});
  EXPECT_THAT(codes(), IsEmpty());
}

TEST_F(GPTCheck, Overlap) {
  setEntries(
      {entryBytes(kEFISystemType, 40, 99), entryBytes(kBasicDataType, 100, 149), entryBytes(kHFSType, 149, 160)});
  const GPTReport found = report();
  EXPECT_THAT(codes(), ElementsAre("overlap"));
  EXPECT_EQ(found.findings.front().text, "entries 2 and 3 overlap");
  EXPECT_THAT(overlappingEntries(found.entries), ElementsAre(std::pair{2U, 3U}));
  // An entry that contains two others overlaps both, wherever it is in the table.
  setEntries({entryBytes(kHFSType, 40, 50), entryBytes(kHFSType, 60, 70), entryBytes(kHFSType, 34, 100)});
  EXPECT_THAT(overlappingEntries(report().entries), UnorderedElementsAre(std::pair{1U, 3U}, std::pair{2U, 3U}));
}

TEST_F(GPTCheck, FindingsAboutEntriesAreLimited) {
  setEntries(std::vector<ByteVector>(128, entryBytes(kHFSType, 150, 149)));
  const auto found = codes();
  EXPECT_EQ(found.size(), 17U);
  EXPECT_EQ(found.back(), "more");
}

}  // namespace
}  // namespace vorlix::test
