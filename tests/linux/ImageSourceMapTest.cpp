// SPDX-License-Identifier: Apache-2.0
//
// Block maps that bmaptool made, ntfsclone's images, and backups in the formats of both.
#include <gmock/gmock.h>

#include <functional>

#include "ImageSources.h"

namespace vorlix::test {
namespace {

using testing::HasSubstr;

// Copies of the volume in a folder of their own, with block maps.
class MappedSourceTest : public testing::Test {
 protected:
  MappedSourceTest() {
    run("cp --sparse=always '" + VolumeImages::shared().at("win.img") + "' '" + at("win.img") + "'");
  }

  std::string at(const std::string& name) const { return (folder_.path() / name).string(); }
  const std::string& raw() const { return VolumeImages::shared().raw(); }

  void makeMap(const std::string& options = "") const {
    run("bmaptool -q create " + options + " '" + at("win.img") + "' -o '" + at("win.bmap") + "' 2>/dev/null");
  }

  // With hashes that only bmap-tools' module has a choice of.
  void makeMapWith(const std::string& type) const {
    const std::string script =
        "import importlib, sys\n"
        "try: package = importlib.import_module('bmaptool.BmapCreate')\n"
        "except ModuleNotFoundError: package = importlib.import_module('bmaptools.BmapCreate')  # before 3.8\n"
        "package.BmapCreate(sys.argv[1], sys.argv[2], '" +
        type + "').generate()";
    run("/usr/bin/python3 -c \"" + script + "\" '" + at("win.img") + "' '" + at("win.bmap") + "'");
  }

  // Changes the text of the block map and gives it the hash that it then has.
  void editMap(const std::function<std::string(std::string)>& edit, const std::string& element = "BmapFileChecksum",
               const std::string& tool = "sha256sum") const {
    std::string text = edit(contentOf(at("win.bmap")));
    const size_t place = text.find("<" + element + ">") + element.size() + 3;
    const size_t size = text.find(' ', place) - place;
    writeFile(at("zeroed"), text.replace(place, size, size, '0'));
    const std::string hash = capture(run(tool + " '" + at("zeroed") + "'"), "^([0-9a-f]+)");
    text.replace(place, size, hash);
    writeFile(at("win.bmap"), text);
  }

  static std::string replaced(std::string text, const std::string& what, const std::string& with) {
    for (size_t place = text.find(what); place != std::string::npos; place = text.find(what, place + with.size())) {
      text.replace(place, what.size(), with);
    }
    return text;
  }

  // A byte that the map's first range has.
  void damage(const std::string& file, uint64_t offset) const {
    std::string bytes = contentOf(at(file));
    bytes[offset] = static_cast<char>(bytes[offset] ^ 1);
    writeFile(at(file), bytes);
  }

 private:
  TemporaryFolder folder_;
};

TEST_F(MappedSourceTest, OnlyWhatIsMappedIsRead) {
  makeMap();
  const ReadImage image = readImage(at("win.img"));
  ASSERT_TRUE(image.hasEnded) << image.failure.reason;
  EXPECT_TRUE(image.bytes == raw());
  const std::string map = contentOf(at("win.bmap"));
  const uint64_t mapped = std::stoull(capture(map, "<MappedBlocksCount> (\\d+)")) * 4096;
  EXPECT_EQ(image.dataSize, mapped);
  EXPECT_EQ(image.unusedSize, raw().size() - mapped);
  EXPECT_EQ(image.zerosSize, 0U);
  EXPECT_EQ(image.facts.usedSize, mapped);
  EXPECT_EQ(image.facts.size, raw().size());
  EXPECT_TRUE(image.facts.isVerified);
  EXPECT_EQ(image.facts.blockMap, at("win.bmap"));
  ASSERT_TRUE(image.facts.ranges);
  const std::regex range("<Range[^>]*> *(\\d+)");
  EXPECT_EQ(image.facts.ranges->size(),
            static_cast<size_t>(std::distance(std::sregex_iterator(map.begin(), map.end(), range), {})));
  EXPECT_EQ(image.facts.ranges->front().offset, std::stoull(capture(map, "<Range[^>]*> *(\\d+)")) * 4096);
}

TEST_F(MappedSourceTest, EveryNameOfAMapIsFound) {
  makeMap();
  const std::string map = contentOf(at("win.bmap"));
  std::filesystem::remove(at("win.bmap"));
  run("gzip -1k '" + at("win.img") + "'");
  for (const char* const name : {"win.img.gz.bmap", "win.img.bmap", "win.bmap"}) {
    writeFile(at(name), map);
    const ReadImage image = readImage(at("win.img.gz"));
    EXPECT_TRUE(image.hasEnded && image.bytes == raw()) << image.failure.reason;
    EXPECT_EQ(image.facts.blockMap, at(name));
    std::filesystem::remove(at(name));
  }
  EXPECT_EQ(readImage(at("win.img.gz")).facts.blockMap, "");
}

TEST_F(MappedSourceTest, APackedImageWithAMap) {
  makeMap();
  for (const char* const packer : {"gzip -1c", "xz -0c", "zstd -qc", "bzip2 -1c", "zip -q1j -"}) {
    run(std::string(packer) + " '" + at("win.img") + "' >'" + at("win.packed") + "'");
    const ReadImage image = readImage(at("win.packed"), 100000);
    ASSERT_TRUE(image.hasEnded) << packer << ": " << image.failure.reason;
    EXPECT_TRUE(image.bytes == raw());
    EXPECT_TRUE(image.facts.isVerified);
    EXPECT_EQ(image.facts.size, raw().size());
  }
}

TEST_F(MappedSourceTest, AChangedByteIsFoundWhereItIsMapped) {
  makeMap();
  const ReadImage image = readImage(at("win.img"));
  const ImageRange last = image.facts.ranges->back();
  damage("win.img", last.offset + last.length - 1);
  const ReadImage damaged = readImage(at("win.img"));
  EXPECT_FALSE(damaged.hasEnded);
  EXPECT_EQ(damaged.failure.subject, at("win.img"));
  EXPECT_EQ(damaged.failure.reason, "the bytes from " + std::to_string(last.offset) + " to " +
                                        std::to_string(last.offset + last.length - 1) +
                                        " are not those that its block map " + at("win.bmap") + " was made of");
  EXPECT_LE(damaged.bytes.size(), last.offset + last.length - 1);

  damage("win.img", last.offset + last.length - 1);
  const ImageRange first = image.facts.ranges->front();
  damage("win.img", first.offset + first.length);  // unused
  EXPECT_TRUE(readImage(at("win.img")).bytes == raw());
}

TEST_F(MappedSourceTest, AMapOfAnotherImageIsNotIgnored) {
  makeMap();
  run("cp '" + at("win.img") + "' '" + at("whole.img") + "' && truncate -s +4096 '" + at("win.img") + "'");
  EXPECT_FALSE(readImage(at("win.img")).isOpen);
  EXPECT_EQ(readImage(at("win.img")).failure.subject, at("win.bmap"));
  EXPECT_THAT(readImage(at("win.img")).failure.reason, HasSubstr("it is of another image than"));
  for (const char* const size : {"+4096", "-8192"}) {
    run("cp '" + at("whole.img") + "' '" + at("win.img") + "' && truncate -s " + size + " '" + at("win.img") + "'");
    run("gzip -1c '" + at("win.img") + "' >'" + at("win.gz") + "'");
    const ReadImage image = readImage(at("win.gz"));
    EXPECT_FALSE(image.hasEnded);
    EXPECT_THAT(image.failure.reason, HasSubstr("block map"));
  }
}

TEST_F(MappedSourceTest, HashesThatTheFormatsKnow) {
  for (const char* const type : {"sha1", "sha256", "sha512"}) {
    makeMapWith(type);
    EXPECT_TRUE(readImage(at("win.img")).facts.isVerified) << type;
    EXPECT_TRUE(readImage(at("win.img")).bytes == raw());
  }
  makeMap("--no-checksum");
  const ReadImage image = readImage(at("win.img"));
  EXPECT_TRUE(image.hasEnded && image.bytes == raw());
  EXPECT_FALSE(image.facts.isVerified);
  makeMapWith("md5");
  EXPECT_EQ(readImage(at("win.img")).failure.reason, "hashes of type md5 are not known");
}

// Version 1.4 was a wrong number of version 2.0. Version 1.3 has SHA-1 under other names.
TEST_F(MappedSourceTest, OlderVersions) {
  makeMap();
  editMap([](const std::string& text) { return replaced(text, "version=\"2.0\"", "version=\"1.4\""); });
  EXPECT_TRUE(readImage(at("win.img")).bytes == raw());
  run("bmaptool -q copy --bmap '" + at("win.bmap") + "' '" + at("win.img") + "' '" + at("out") + "' 2>/dev/null");

  makeMapWith("sha1");
  editMap(
      [](std::string text) {
        text = replaced(text, "version=\"2.0\"", "version=\"1.3\"");
        text = replaced(text, "<ChecksumType> sha1 </ChecksumType>", "");
        return replaced(replaced(text, "BmapFileChecksum", "BmapFileSHA1"), "chksum=", "sha1=");
      },
      "BmapFileSHA1", "sha1sum");
  run("bmaptool -q copy --bmap '" + at("win.bmap") + "' '" + at("win.img") + "' '" + at("out") + "' 2>/dev/null");
  const ReadImage image = readImage(at("win.img"));
  EXPECT_TRUE(image.hasEnded && image.bytes == raw()) << image.failure.reason;
  EXPECT_TRUE(image.facts.isVerified);

  makeMap();
  editMap([](const std::string& text) { return replaced(text, "version=\"2.0\"", "version=\"3.0\""); });
  EXPECT_EQ(readImage(at("win.img")).failure.reason, "block maps of version 3.0 are not read, only 1.3, 1.4 and 2");
}

TEST_F(MappedSourceTest, DamagedMaps) {
  makeMap();
  const std::string whole = contentOf(at("win.bmap"));
  const auto reasonOf = [&](const std::string& text) {
    writeFile(at("win.bmap"), text);
    const ReadImage image = readImage(at("win.img"));
    EXPECT_FALSE(image.isOpen);
    EXPECT_EQ(image.failure.subject, at("win.bmap"));
    return image.failure.reason;
  };
  EXPECT_EQ(reasonOf(replaced(whole, "useful", "usefxl")), "it is damaged: its hash is wrong");
  EXPECT_EQ(reasonOf(""), "it is not a block map, or truncated");
  EXPECT_EQ(reasonOf("what is no XML"), "it is not a block map, or truncated");
  EXPECT_EQ(reasonOf("<html></html>"), "it is not a block map");
  EXPECT_EQ(reasonOf("<!DOCTYPE bmap>" + whole), "it is not a block map: it declares types");
  for (size_t i = 1; i < 40; ++i) EXPECT_NE(reasonOf(whole.substr(0, (whole.size() - 8) * i / 40)), "") << i;

  // With the right hash of itself, and wrong all the same.
  const std::pair<std::pair<std::string, std::string>, std::string> wrong[] = {
      {{"<BlockSize> 4096", "<BlockSize> 2048"}, "its image size and its blocks do not agree"},
      {{"<BlockSize> 4096", "<BlockSize> 0000"}, "its sizes are impossible"},
      {{"<BlockSize> 4096", "<BlockSize> 4k96"}, "BlockSize is no number"},
      {{"</BlockMap>", "<Range> 0 </Range></BlockMap>"}, "its ranges are not in rising order"},
      {{"</BlockMap>", "<Range> 9-1 </Range></BlockMap>"}, "\"9-1\" is no range of blocks"},
      {{"</BlockMap>", "<Range> 1600-99999999 </Range></BlockMap>"}, "do not agree"},
      {{"chksum=\"", "chksum=\"xx"}, "is no hash"},
      {{"<ImageSize>", "<ImageSize> 1 </ImageSize><ImageSize>"}, "it tells ImageSize twice"},
      {{"</BlockMap>", ""}, "not nested"},
  };
  for (const auto& [change, reason] : wrong) {
    makeMap();
    editMap([&edit = change](const std::string& text) { return replaced(text, edit.first, edit.second); });
    const ReadImage image = readImage(at("win.img"));
    EXPECT_FALSE(image.isOpen);
    EXPECT_THAT(image.failure.reason, HasSubstr(reason)) << change.second;
  }
}

TEST_F(MappedSourceTest, GoesOnWhereARestoreStopped) {
  makeMap();
  run("zstd -qk '" + at("win.img") + "'");
  const ReadImage whole = readImage(at("win.img"));
  const ImageRange last = whole.facts.ranges->back();
  for (const char* const name : {"win.img", "win.img.zst"}) {
    for (const uint64_t place : {uint64_t{1}, last.offset - 1, last.offset, last.offset + 5, uint64_t{raw().size()}}) {
      ReadImage image;
      const auto source = openImageSource(at(name), {}, image.failure);
      ASSERT_FALSE(source->moveTo(place));
      readRest(*source, image, 8192, place);
      EXPECT_TRUE(image.hasEnded && image.bytes == raw().substr(place)) << name << place << image.failure.reason;
    }
  }
}

// What a backup is made of: frames of 4 MiB, each a file of its own for zstd, and the block map.
TEST_F(MappedSourceTest, ABackup) {
  makeMap();
  run("mkdir '" + at("backup") + "' && mv '" + at("win.bmap") + "' '" + at("backup/volume.bmap") + "'");
  run("split -b 4M '" + at("win.img") + "' '" + at("part-") + "' && for part in '" + at("") +
      "'part-*; do zstd -qc $part; done >'" + at("backup/volume.img.zst") + "'");
  for (const char* const name : {"backup", "backup/"}) {
    const ReadImage image = readImage(at(name));
    ASSERT_TRUE(image.hasEnded) << image.failure.reason;
    EXPECT_TRUE(image.bytes == raw());
    EXPECT_EQ(image.facts.kind, ImageKind::backup);
    EXPECT_EQ(image.facts.description, "backup");
    EXPECT_TRUE(image.facts.isVerified);
    EXPECT_EQ(image.facts.size, raw().size());
  }
  const std::string whole = contentOf(at("backup/volume.img.zst"));
  for (size_t i = 0; i < 24; ++i) {
    writeFile(at("backup/volume.img.zst"), whole.substr(0, whole.size() * i / 24));
    EXPECT_FALSE(readImage(at("backup")).hasEnded) << i;
  }
  std::filesystem::remove(at("backup/volume.bmap"));
  EXPECT_EQ(readImage(at("backup")).failure.reason, "the folder is no backup: volume.bmap is missing");
}

class CloneSourceTest : public MappedSourceTest {
 protected:
  CloneSourceTest() {
    // A file that is deleted again leaves bytes that nobody uses.
    run("ntfsclone -q --save-image --output '" + at("win.ntfs") + "' '" + at("win.img") + "' >/dev/null 2>&1");
    run("ntfsclone -q --restore-image --output '" + at("restored") + "' '" + at("win.ntfs") + "' >/dev/null 2>&1");
  }
};

TEST_F(CloneSourceTest, IsWhatNtfscloneRestores) {
  const std::string restored = contentOf(at("restored"));
  for (const size_t buffer : {size_t{100}, size_t{4096}, size_t{70000}, kLargestPiece}) {
    const ReadImage image = readImage(at("win.ntfs"), buffer);
    ASSERT_TRUE(image.hasEnded) << image.failure.reason;
    EXPECT_TRUE(image.bytes == restored) << buffer;
  }
  const ReadImage image = readImage(at("win.ntfs"));
  EXPECT_EQ(image.facts.kind, ImageKind::ntfsclone);
  EXPECT_EQ(image.facts.description, "ntfsclone image");
  EXPECT_EQ(image.facts.size, raw().size());
  EXPECT_EQ(image.facts.usedSize, image.dataSize);
  EXPECT_GT(image.unusedSize, 0U);
  EXPECT_EQ(image.facts.volume->size(), raw().size());
  EXPECT_EQ(std::string(image.facts.start.begin(), image.facts.start.end()), raw().substr(0, 4096));
}

TEST_F(CloneSourceTest, PackedAndFromAPipe) {
  const std::string restored = contentOf(at("restored"));
  for (const char* const packer : {"gzip -1c", "xz -0c", "zstd -qc", "zip -q1j -"}) {
    const std::string command = std::string(packer) + " '" + at("win.ntfs") + "'";
    run(command + " >'" + at("packed") + "'");
    EXPECT_TRUE(readImage(at("packed")).bytes == restored) << packer;
    EXPECT_TRUE(readFromPipe(command).bytes == restored) << packer;
  }
  EXPECT_EQ(readImage(at("packed")).facts.description, "ntfsclone image packed with zip");
  EXPECT_TRUE(readFromPipe("ntfsclone -q --save-image --output - '" + at("win.img") + "'").bytes == restored);
}

TEST_F(CloneSourceTest, ClustersOfOtherSizes) {
  for (const char* const size : {"512", "1024", "16384", "65536"}) {
    run("truncate -s 0 '" + at("other") + "' && truncate -s 6M '" + at("other") + "' && mkntfs -q -F -Q -c " + size +
        " '" + at("other") + "' >/dev/null 2>&1");
    run("ntfsclone -q --save-image --overwrite '" + at("image") + "' '" + at("other") + "' >/dev/null 2>&1");
    const ReadImage image = readImage(at("image"), 30000);
    ASSERT_TRUE(image.hasEnded) << image.failure.reason;
    EXPECT_TRUE(image.bytes == contentOf(at("other"))) << size;
    EXPECT_EQ(image.facts.volume->clusterSize, std::stoul(size));
  }
}

TEST_F(CloneSourceTest, TruncatedAndDamagedImages) {
  const std::string whole = contentOf(at("win.ntfs"));
  for (size_t i = 0; i < 64; ++i) {
    const size_t place = i < 50 ? 16 + i : whole.size() * (i - 49) / 16;
    writeFile(at("cut"), whole.substr(0, std::min(place, whole.size() - 1)));
    EXPECT_FALSE(readImage(at("cut")).hasEnded) << place;
  }
  writeFile(at("cut"), whole + "x");
  EXPECT_EQ(readImage(at("cut")).failure.reason, "damaged ntfsclone image: something follows its last cluster");
  // The header and the commands; the content of clusters has no checks.
  for (size_t place = 16; place < 57; ++place) {
    for (const int bit : {0, 3, 7}) {
      std::string damaged = whole;
      damaged[place] = static_cast<char>(damaged[place] ^ 1 << bit);
      writeFile(at("damaged"), damaged);
      const ReadImage image = readImage(at("damaged"), kLargestPiece, {uint64_t{1} << 30});
      EXPECT_TRUE(!image.hasEnded || place >= 50 || place == 17 || (place >= 22 && place < 30) || place >= 38) << place;
    }
  }
}

TEST_F(CloneSourceTest, AnImageOfMetadataOnlyIsRefused) {
  run("ntfsclone -q --metadata --save-image --output '" + at("metadata") + "' '" + at("win.img") + "' >/dev/null 2>&1");
  const ReadImage image = readImage(at("metadata"));
  EXPECT_FALSE(image.hasEnded);
  EXPECT_THAT(image.failure.reason, HasSubstr("an ntfsclone image of metadata only"));
}

TEST_F(CloneSourceTest, GoesOnWhereARestoreStopped) {
  const std::string restored = contentOf(at("restored"));
  for (const uint64_t place : {uint64_t{1}, uint64_t{5000}, uint64_t{3} << 20, uint64_t{restored.size()}}) {
    ReadImage image;
    const auto source = openImageSource(at("win.ntfs"), {}, image.failure);
    ASSERT_FALSE(source->moveTo(place));
    readRest(*source, image, 8192, place);
    EXPECT_TRUE(image.hasEnded && image.bytes == restored.substr(place)) << place;
  }
}

TEST_F(CloneSourceTest, ItsOldVersionsAreRefused) {
  std::string old = contentOf(at("win.ntfs"));
  old[16] = 3;
  writeFile(at("old"), old);
  EXPECT_EQ(readImage(at("old")).failure.reason, "ntfsclone images of version 3.1 are not read, only 10");
}

}  // namespace
}  // namespace vorlix::test
