// SPDX-License-Identifier: Apache-2.0
//
// What boot sectors say, compared with the volumes that the tools made.
#include <Vorlix/VolumeFacts.h>
#include <gtest/gtest.h>

#include "Commands.h"

namespace vorlix::test {
namespace {

class VolumeFactsTest : public testing::Test {
 protected:
  std::string file() const { return (folder_.path() / "volume").string(); }

  std::vector<uint8_t> startOf() const {
    std::ifstream stream(file(), std::ios::binary);
    std::vector<char> bytes(4096);
    stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return {bytes.begin(), bytes.end()};
  }

  std::optional<VolumeFacts> factsOf(const std::string& size, const std::string& command) {
    run("rm -f '" + file() + "' && truncate -s " + size + " '" + file() + "' && " + command + " '" + file() +
        "' >/dev/null 2>&1");
    return volumeFacts(startOf());
  }

  TemporaryFolder folder_;
};

TEST_F(VolumeFactsTest, NTFS) {
  EXPECT_EQ(factsOf("20M", "mkntfs -qFQ"), (VolumeFacts{VolumeFormat::ntfs, 512, 40960, 4096}));
  EXPECT_EQ(factsOf("20M", "mkntfs -qFQ -s 4096 -c 4096"), (VolumeFacts{VolumeFormat::ntfs, 4096, 5120, 4096}));
  EXPECT_EQ(factsOf("20M", "mkntfs -qFQ -c 65536"), (VolumeFacts{VolumeFormat::ntfs, 512, 40960, 65536}));
  EXPECT_EQ(factsOf("40M", "mkntfs -qFQ -c 2097152"), (VolumeFacts{VolumeFormat::ntfs, 512, 81920, 2097152}));
  EXPECT_EQ(factsOf("3T", "mkntfs -qFQ"), (VolumeFacts{VolumeFormat::ntfs, 512, uint64_t{3} << 31, 4096}));
}

TEST_F(VolumeFactsTest, FAT) {
  EXPECT_EQ(factsOf("2M", "mkfs.vfat -F 12 -s 4"), (VolumeFacts{VolumeFormat::fat12, 512, 4096, 2048}));
  EXPECT_EQ(factsOf("32M", "mkfs.vfat -F 16 -s 4"), (VolumeFacts{VolumeFormat::fat16, 512, 65536, 2048}));
  EXPECT_EQ(factsOf("64M", "mkfs.vfat -F 32 -s 1"), (VolumeFacts{VolumeFormat::fat32, 512, 131072, 512}));
  EXPECT_EQ(factsOf("300M", "mkfs.vfat -F 32 -S 4096 -s 1"), (VolumeFacts{VolumeFormat::fat32, 4096, 76800, 4096}));
}

TEST_F(VolumeFactsTest, ExFAT) {
  EXPECT_EQ(factsOf("20M", "mkfs.exfat -c 32K"), (VolumeFacts{VolumeFormat::exfat, 512, 40960, 32768}));
}

TEST_F(VolumeFactsTest, Others) {
  EXPECT_EQ(volumeFacts({}), std::nullopt);
  EXPECT_EQ(volumeFacts(std::vector<uint8_t>(511)), std::nullopt);
  EXPECT_EQ(volumeFacts(std::vector<uint8_t>(4096)), std::nullopt);
  EXPECT_EQ(volumeFacts(std::vector<uint8_t>(4096, 0xFF)), std::nullopt);
  EXPECT_EQ(factsOf("20M", "mke2fs -q"), std::nullopt);
  EXPECT_EQ(factsOf("20M", "sgdisk -o -n 1:2048:4096"), std::nullopt);
  EXPECT_EQ(nameOf(VolumeFormat::exfat), std::string("exFAT"));
}

TEST_F(VolumeFactsTest, FieldsThatCannotBe) {
  factsOf("20M", "mkntfs -qFQ");
  const auto whole = startOf();
  for (const auto& [offset, value] : {std::pair{11, 1}, {12, 3}, {13, 0}, {13, 3}, {13, 0xE0}, {47, 0x7F}}) {
    auto bytes = whole;
    bytes[static_cast<size_t>(offset)] = static_cast<uint8_t>(value);
    EXPECT_EQ(volumeFacts(bytes), std::nullopt) << offset;
  }
}

}  // namespace
}  // namespace vorlix::test
