// SPDX-License-Identifier: Apache-2.0
//
// Reading FAT volumes that mkfs.vfat and mtools made, and damaged copies of them.
#include "platform/linux/FatVolume.h"

#include <Vorlix/platform/Descriptor.h>
#include "platform/linux/FatNames.h"
#include "platform/linux/MirrorCopy.h"
#include "tests/contract/Volumes.h"

namespace vorlix::contract {
namespace {

class FatVolumeTest : public testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    const std::string missing = missingTool({"sfdisk", "mkfs.vfat", "mcopy", "mattrib"});
    if (!missing.empty()) GTEST_SKIP() << missing;
    makeFATImage(image_, bits(), megabytes());
  }

  virtual int bits() const { return GetParam(); }
  int megabytes() const { return bits() == 12 ? 4 : bits() == 16 ? 16 : 40; }

  Refusal read() {
    file_ = Descriptor(open(image_.c_str(), O_RDONLY | O_CLOEXEC));
    volume_ = OpenVolume();
    return volume_.read(file_.get(), {kVolumeOffset, uint64_t(megabytes()) << 20});
  }

  std::string content(const FatEntry& entry) {
    std::string bytes(entry.size, '\0');
    const auto take = [&](uint64_t offset, const uint8_t* from, size_t count) -> Refusal {
      std::copy_n(from, count, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
      return std::nullopt;
    };
    EXPECT_TRUE(granted(volume_.volume.readFile(file_.get(), volume_.window, entry, take)));
    return bytes;
  }

  /// Writes bytes into the volume.
  void poke(uint64_t offset, const std::string& bytes) const {
    std::fstream file(image_, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(kVolumeOffset + offset));
    file << bytes;
  }

  /// Returns the offset of bytes in the volume.
  uint64_t find(const std::string& bytes) const {
    const size_t at = readText(image_).find(bytes, kVolumeOffset);
    EXPECT_NE(at, std::string::npos);
    return at - kVolumeOffset;
  }

  TemporaryFolder folder_;
  const std::string image_ = folder_ / "mac.img";
  Descriptor file_;
  OpenVolume volume_;
};

class FatVolumeOf16Bits : public FatVolumeTest {
 protected:
  int bits() const override { return 16; }

  /// Writes a little-endian entry into both tables, or only into the first one.
  void pokeTables(uint32_t cluster, const std::string& value, bool first = false) {
    ASSERT_TRUE(granted(read()));
    const FatLayout& layout = volume_.volume.layout();
    poke(layout.tables + cluster * 2, value);
    if (!first) poke(layout.tables + layout.tableSize + cluster * 2, value);
  }

  uint32_t firstClusterOf(const std::string& path) {
    EXPECT_TRUE(granted(read()));
    return volume_.volume.find(path)->firstCluster;
  }
};

std::string pairOf(uint32_t value) {
  return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)};
}

TEST_P(FatVolumeTest, NamesSizesBytesAndAttributesMatchThoseOfMtools) {
  const std::string large(300000, 'L');
  writeText(folder_ / "file", large);
  const std::vector<std::string> names = {"UPPER.TXT",
                                          "lower.txt",
                                          "Mixed Case.text",
                                          "no extension",
                                          "x.y.z",
                                          "\xC3\x9C\xC3\xB1\xC3\xAF.txt",
                                          "\xD0\x96 \xE6\xB0\xB4",
                                          std::string(255, 'n'),
                                          "MIX.txt",
                                          "mix2.TXT"};
  for (const std::string& name : names) mtools(image_, "mcopy", "'" + (folder_ / "file") + "' '::/EFI/" + name + "'");
  mtools(image_, "mattrib", "+r +h '::/EFI/lower.txt'");
  ASSERT_TRUE(granted(read()));
  for (const std::string& name : names) {
    const FatEntry* const entry = volume_.volume.find("/EFI/" + name);
    ASSERT_NE(entry, nullptr) << name;
    EXPECT_EQ(entry->path, "/EFI/" + name);
    EXPECT_TRUE(content(*entry) == large) << name;
    EXPECT_EQ(entry->attributes & 7, name == "lower.txt" ? kFatReadOnly | kFatHidden : 0) << name;
  }
  EXPECT_EQ(volume_.volume.find("/efi/BOOT/BootX64.EFI")->path, "/EFI/Boot/bootx64.efi");
  EXPECT_EQ(volume_.volume.find("/EFI/nothing"), nullptr);
  EXPECT_EQ(volume_.volume.entries().size(), names.size() + 4);
  EXPECT_EQ(volume_.volume.lostClusters(), 0U);
}

TEST_P(FatVolumeTest, TablesThatDifferAreRefused) {
  ASSERT_TRUE(granted(read()));
  const FatLayout layout = volume_.volume.layout();
  poke(layout.tables + layout.tableSize + 100, "\x01");
  EXPECT_TRUE(refused(read(), kDissentUnsupported, "allocation tables differ"));
}

INSTANTIATE_TEST_SUITE_P(Widths, FatVolumeTest, testing::Values(12, 16, 32), testing::PrintToStringParamName());

TEST_F(FatVolumeOf16Bits, AChainLongerOrShorterThanItsFileIsRefused) {
  const uint64_t entry = find("README  TXT");
  const std::string bytes = readText(image_);
  poke(entry + 28, std::string("\x00\x10\x00\x00", 4));  // 4096 bytes in a cluster of 2048
  EXPECT_TRUE(refused(read(), kDissentUnsupported, "the size of /readme.txt"));
  poke(entry + 28, std::string(4, '\0'));
  EXPECT_TRUE(refused(read(), kDissentUnsupported, "the size of /readme.txt"));
  writeText(image_, bytes);
  EXPECT_TRUE(granted(read()));
}

TEST_F(FatVolumeOf16Bits, AClusterInTwoFilesIsRefused) {
  const uint32_t cluster = firstClusterOf("/EFI/Boot/bootx64.efi");
  poke(find("README  TXT") + 26, pairOf(cluster));
  EXPECT_TRUE(refused(read(), kDissentUnsupported, "is used twice"));
}

TEST_F(FatVolumeOf16Bits, ACircularChainIsRefused) {
  const uint32_t cluster = firstClusterOf("/readme.txt");
  pokeTables(cluster, pairOf(cluster));
  poke(find("README  TXT") + 28, std::string("\x00\x10\x00\x00", 4));
  EXPECT_TRUE(refused(read(), kDissentUnsupported, "is used twice"));
}

TEST_F(FatVolumeOf16Bits, AChainThatLeadsToAFreeClusterIsRefused) {
  pokeTables(firstClusterOf("/readme.txt"), std::string(2, '\0'));
  EXPECT_TRUE(refused(read(), kDissentUnsupported, "has no end"));
}

TEST_F(FatVolumeOf16Bits, InvalidNamesAreRefused) {
  writeText(folder_ / "file", "x");
  mtools(image_, "mcopy", "'" + (folder_ / "file") + "' '::/a long name.txt'");
  const std::string bytes = readText(image_);
  const uint64_t name = find(std::string("a\0 \0l\0", 6));
  for (const char bad : {'/', '\\', ':', '\x01', '?'}) {
    poke(name, std::string(1, bad));
    EXPECT_TRUE(refused(read(), kDissentUnsupported, "name that is not allowed"));
  }
  poke(name, std::string("\x00\xD8", 2));  // an unpaired surrogate
  EXPECT_TRUE(refused(read(), kDissentUnsupported, "name that is not allowed"));
  writeText(image_, bytes);
  poke(find("README  TXT"), "RE/D");
  EXPECT_TRUE(refused(read(), kDissentUnsupported, "name that is not allowed"));
}

TEST_F(FatVolumeOf16Bits, ALongNameOfMoreThan255UnitsIsRefused) {
  writeText(folder_ / "file", "x");
  mtools(image_, "mcopy", "'" + (folder_ / "file") + "' '::/" + std::string(255, 'n') + "'");
  ASSERT_TRUE(granted(read()));
  // The last of its 20 parts holds 8 letters and the terminating zero. Five more letters make 260.
  const uint64_t part = find(std::string("\x54n\0n\0", 5));
  poke(part + 14, "n");
  for (const uint64_t unit : {14U, 16U, 18U, 20U, 22U, 24U, 28U, 30U}) poke(part + unit, std::string("n\0", 2));
  EXPECT_TRUE(refused(read(), kDissentUnsupported, "name that is not allowed"));
}

TEST_F(FatVolumeOf16Bits, ALongNameWithAWrongChecksumIsIgnored) {
  writeText(folder_ / "file", "x");
  mtools(image_, "mcopy", "'" + (folder_ / "file") + "' '::/a long name.txt'");
  const uint64_t name = find(std::string("a\0 \0l\0", 6));
  poke(name + 12, "\x01");
  ASSERT_TRUE(granted(read()));
  EXPECT_EQ(volume_.volume.find("/a long name.txt"), nullptr);
  EXPECT_NE(volume_.volume.find("/ALONGN~1.TXT"), nullptr);
}

TEST_F(FatVolumeOf16Bits, FreeClustersMatchTheCountOfFsck) {
  ASSERT_TRUE(granted(read()));
  const std::string copy = folder_ / "volume";
  writeText(copy, readText(image_).substr(kVolumeOffset, size_t{16} << 20));
  const std::string counts = shell("fsck.vfat -n '" + copy + "'");
  const uint32_t clusters = volume_.volume.layout().clusters;
  EXPECT_NE(counts.find(std::to_string(clusters - volume_.volume.freeClusters()) + "/" + std::to_string(clusters)),
            std::string::npos)
      << counts;
}

TEST(FatNames, UpperAndLowerCaseAreEqual) {
  EXPECT_EQ(foldedFatName("/EFI/boot x1.txt"), "/EFI/BOOT X1.TXT");
  EXPECT_EQ(foldedFatName("\xC3\xA9\xC3\xBF\xC5\x82"), "\xC3\x89\xC5\xB8\xC5\x81");          // é ÿ ł
  EXPECT_EQ(foldedFatName("\xCE\xAC\xCF\x83\xCF\x8E"), "\xCE\x86\xCE\xA3\xCE\x8F");          // ά σ ώ
  EXPECT_EQ(foldedFatName("\xD0\xB6\xD1\x8F\xD1\x91"), "\xD0\x96\xD0\xAF\xD0\x81");          // ж я ё
  EXPECT_EQ(foldedFatName("\xC3\xB7\xC3\x9F\xE6\xB0\xB4"), "\xC3\xB7\xC3\x9F\xE6\xB0\xB4");  // ÷ ß 水
}

}  // namespace
}  // namespace vorlix::contract
