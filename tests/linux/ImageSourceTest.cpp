// SPDX-License-Identifier: Apache-2.0
//
// Sources of a restore that the packers and ntfsclone made, compared with the volume that they were made of.
#include <gmock/gmock.h>

#include <algorithm>
#include <functional>

#include "ImageSources.h"

namespace vorlix::test {
namespace {

using testing::HasSubstr;

struct Packer {
  const char* name;
  const char* command;  // %s is the file
  PackedFormat format;
  bool tellsSize;
};

constexpr Packer kPackers[] = {
    {"gz", "gzip -1c", PackedFormat::gzip, false},  {"xz", "xz -1c", PackedFormat::xz, true},
    {"zst", "zstd -qc", PackedFormat::zstd, true},  {"bz2", "bzip2 -1c", PackedFormat::bzip2, false},
    {"zip", "zip -q1j -", PackedFormat::zip, true},
};

class PackedSourceTest : public testing::TestWithParam<Packer> {
 protected:
  VolumeImages& images_ = VolumeImages::shared();

  // The volume packed, made once.
  std::string packed() const {
    const std::string path = images_.at(std::string("win.img.") + GetParam().name);
    if (!std::filesystem::exists(path)) pack(images_.at("win.img"), path);
    return path;
  }

  // Less of it, for tests that unpack it often.
  std::string packedContent() const {
    const std::string path = images_.at(std::string("content.") + GetParam().name);
    if (!std::filesystem::exists(path)) pack(images_.at("content"), path);
    return path;
  }

  static void pack(const std::string& from, const std::string& to) {
    run(std::string(GetParam().command) + " '" + from + "' >'" + to + "'");
  }
};

INSTANTIATE_TEST_SUITE_P(Formats, PackedSourceTest, testing::ValuesIn(kPackers),
                         [](const auto& packer) { return std::string(packer.param.name); });

TEST_P(PackedSourceTest, IsTheVolumeThatWasPacked) {
  const ReadImage image = readImage(packed());
  ASSERT_TRUE(image.hasEnded) << image.failure.reason;
  EXPECT_TRUE(image.bytes == images_.raw());
  EXPECT_EQ(image.facts.kind, ImageKind::raw);
  EXPECT_EQ(image.facts.packing, GetParam().format);
  EXPECT_EQ(image.facts.size, GetParam().tellsSize ? std::optional<uint64_t>(images_.raw().size()) : std::nullopt);
  EXPECT_EQ(image.facts.fileSize, std::filesystem::file_size(packed()));
  EXPECT_FALSE(image.facts.isVerified);
  ASSERT_TRUE(image.facts.volume);
  EXPECT_EQ(image.facts.volume->size(), images_.raw().size());
  EXPECT_THAT(image.facts.description, HasSubstr(std::string("raw image packed with ") + wordFor(GetParam().format)));
}

TEST_P(PackedSourceTest, TheNameDoesNotMatter) {
  const std::string path = images_.at(std::string("named-otherwise-") + GetParam().name + ".txt");
  std::filesystem::copy_file(packed(), path);
  EXPECT_TRUE(readImage(path).bytes == images_.raw());
}

TEST_P(PackedSourceTest, FromAPipe) {
  const ReadImage image = readFromPipe("cat '" + packed() + "'");
  ASSERT_TRUE(image.hasEnded) << image.failure.reason;
  EXPECT_TRUE(image.bytes == images_.raw());
  EXPECT_EQ(image.facts.fileSize, std::nullopt);
  EXPECT_EQ(image.facts.identity, std::nullopt);
}

TEST_P(PackedSourceTest, WithSmallAndOddBuffers) {
  EXPECT_TRUE(readImage(packed(), 1000).bytes == images_.raw());
  EXPECT_TRUE(readImage(packed(), 65537).bytes == images_.raw());
}

TEST_P(PackedSourceTest, GoesOnWhereARestoreStopped) {
  for (const uint64_t place : {uint64_t{0}, uint64_t{1}, uint64_t{4097}, uint64_t{5} << 20, uint64_t{6} << 20}) {
    ReadImage image;
    const auto source = openImageSource(packed(), {}, image.failure);
    ASSERT_NE(source, nullptr);
    ASSERT_FALSE(source->moveTo(place));
    readRest(*source, image, kLargestPiece, place);
    EXPECT_TRUE(image.hasEnded && image.bytes == images_.raw().substr(place)) << place;
  }
}

TEST_P(PackedSourceTest, ATruncatedFileNeverComesToAnEnd) {
  const std::string content = contentOf(images_.at("content"));
  const std::string whole = contentOf(packedContent());
  const std::string path = images_.at(std::string("cut.") + GetParam().name);
  std::vector<size_t> places = {1, 2, 3, 5, 8, 11, 12, 13, 17, 18, 30, 60};
  for (size_t i = 1; i < 24; ++i) places.push_back(whole.size() * i / 24);
  for (size_t i = 1; i <= 12; ++i) places.push_back(whole.size() - i);
  for (const size_t place : places) {
    // What is shorter than the format's mark is a raw image of a few bytes.
    if (place < 10 && GetParam().format != PackedFormat::zip) continue;
    if (place < 4) continue;
    writeFile(path, whole.substr(0, place));
    const ReadImage image = readImage(path);
    EXPECT_FALSE(image.hasEnded) << place << " of " << whole.size();
    EXPECT_FALSE(image.failure.reason.empty());
    const ReadImage piped = readFromPipe("cat '" + path + "'");
    // In order, a zip file's end is its directory, which tells nothing that is needed any more.
    const bool isZip = GetParam().format == PackedFormat::zip;
    EXPECT_FALSE(piped.hasEnded && !(isZip && place + 300 > whole.size() && piped.bytes == content)) << place;
  }
}

TEST_P(PackedSourceTest, AFlippedBitIsFoundOrChangesNothing) {
  const std::string content = contentOf(images_.at("content"));
  const std::string whole = contentOf(packedContent());
  const std::string path = images_.at(std::string("flipped.") + GetParam().name);
  size_t found = 0;
  constexpr size_t kFlips = 90;
  for (size_t i = 0; i < kFlips; ++i) {
    std::string damaged = whole;
    // A third at the start, a third at the end, where the formats keep what they tell of themselves.
    size_t place = i < 30 ? i : whole.size() * (i - 30) / 30;
    if (i >= 60) place = whole.size() - 1 - (i - 60);
    damaged[place] = static_cast<char>(damaged[place] ^ (1 << i % 8));
    writeFile(path, damaged);
    const ReadImage image = readImage(path);
    found += image.hasEnded ? 0 : 1;
    // Without the format's mark it is a raw image that is the file itself.
    EXPECT_TRUE(!image.hasEnded || image.bytes == content || image.bytes == damaged) << "byte " << place;
  }
  EXPECT_GT(found, kFlips / 2);
}

TEST_P(PackedSourceTest, WhatFollowsIsNotIgnored) {
  const std::string path = images_.at(std::string("followed.") + GetParam().name);
  if (GetParam().format == PackedFormat::zip) return;  // a comment may follow
  writeFile(path, contentOf(packed()) + "something else");
  const ReadImage image = readImage(path);
  EXPECT_FALSE(image.hasEnded);
}

TEST_P(PackedSourceTest, SeveralPartsAreOneVolume) {
  if (GetParam().format == PackedFormat::zip) return;  // has none
  const std::string path = images_.at(std::string("parts.") + GetParam().name);
  run("split -b 4M '" + images_.at("win.img") + "' '" + images_.at("part-") + "'");
  run("for part in '" + images_.at("") + "'part-*; do " + GetParam().command + " $part; done >'" + path + "'");
  for (const ReadImage& image : {readImage(path), readFromPipe("cat '" + path + "'")}) {
    ASSERT_TRUE(image.hasEnded) << image.failure.reason;
    EXPECT_TRUE(image.bytes == images_.raw());
  }
  if (GetParam().tellsSize) {
    EXPECT_EQ(readImage(path).facts.size, images_.raw().size());
  }
}

TEST_P(PackedSourceTest, ABombStopsAtTheLimit) {
  const std::string path = images_.at(std::string("bomb.") + GetParam().name);
  run("truncate -s 64M '" + images_.at("zeros") + "'");
  pack(images_.at("zeros"), path);
  const ReadImage image = readImage(path, kLargestPiece, {uint64_t{16} << 20});
  EXPECT_FALSE(image.hasEnded);
  EXPECT_EQ(image.zerosSize, uint64_t{16} << 20);
  EXPECT_EQ(image.dataSize, 0U);
  EXPECT_EQ(image.failure.reason, "it is larger than the 16777216 bytes that there is room for");
  EXPECT_EQ(image.facts.volume, std::nullopt);
}

TEST_P(PackedSourceTest, WhatIsPackedTwiceIsRefused) {
  const std::string path = images_.at(std::string("twice.") + GetParam().name);
  std::filesystem::copy_file(packed(), images_.at("once"), std::filesystem::copy_options::overwrite_existing);
  pack(images_.at("once"), path);
  const ReadImage image = readImage(path);
  EXPECT_FALSE(image.isOpen);
  EXPECT_EQ(image.failure.reason, "what is packed in it is packed again");
}

TEST_P(PackedSourceTest, WhatIsEmptyIsRefused) {
  const std::string path = images_.at(std::string("empty.") + GetParam().name);
  writeFile(images_.at("nothing"), "");
  pack(images_.at("nothing"), path);
  const ReadImage image = readImage(path);
  EXPECT_FALSE(image.isOpen);
  EXPECT_THAT(image.failure.reason, HasSubstr("empty"));
}

class ImageSourceTest : public testing::Test {
 protected:
  VolumeImages& images_ = VolumeImages::shared();
};

TEST_F(ImageSourceTest, ARawImageIsReadWithItsHoles) {
  const ReadImage image = readImage(images_.at("win.img"));
  ASSERT_TRUE(image.hasEnded) << image.failure.reason;
  EXPECT_TRUE(image.bytes == images_.raw());
  EXPECT_EQ(image.facts.kind, ImageKind::raw);
  EXPECT_EQ(image.facts.packing, std::nullopt);
  EXPECT_EQ(image.facts.size, images_.raw().size());
  EXPECT_EQ(image.facts.description, "raw image");
  EXPECT_EQ(std::string(image.facts.start.begin(), image.facts.start.end()), images_.raw().substr(0, 4096));
  EXPECT_TRUE(image.facts.identity);
  EXPECT_EQ(image.unusedSize, 0U);
  const uint64_t blocks =
      std::stoull(run("stat -c %b '" + images_.at("win.img") + "'"));  // and those of the file system
  EXPECT_LE(image.dataSize, blocks * 512);
  EXPECT_GT(image.zerosSize, image.facts.size.value_or(0) / 4);
}

TEST_F(ImageSourceTest, ARawImageFromAPipe) {
  const ReadImage image = readFromPipe("cat '" + images_.at("win.img") + "'");
  ASSERT_TRUE(image.hasEnded) << image.failure.reason;
  EXPECT_TRUE(image.bytes == images_.raw());
  EXPECT_EQ(image.facts.size, std::nullopt);
  EXPECT_EQ(image.facts.volume->size(), images_.raw().size());
}

TEST_F(ImageSourceTest, ANamedPipe) {
  const std::string pipe = images_.at("pipe");
  run("mkfifo '" + pipe + "'; (cat '" + images_.at("win.img") + "' >'" + pipe + "') >/dev/null 2>&1 &");
  EXPECT_TRUE(readImage(pipe).bytes == images_.raw());
}

TEST_F(ImageSourceTest, ASliceOfAnImage) {
  const std::string disk = images_.at("mac.img");
  makeMacImage(disk);
  run("dd if='" + images_.at("win.img") + "' of='" + disk + "' bs=512 seek=20520 conv=notrunc status=none");
  const ReadImage image = readImage(disk + "s3");
  ASSERT_TRUE(image.hasEnded) << image.failure.reason;
  EXPECT_EQ(image.facts.size, uint64_t{61479 - 20520 + 1} * 512);
  EXPECT_TRUE(image.bytes == contentOf(disk).substr(20520 * 512, *image.facts.size));
  EXPECT_EQ(image.facts.volume->size(), images_.raw().size());
  EXPECT_EQ(readImage(disk + "s2").failure.reason, "No such file or directory");
}

TEST_F(ImageSourceTest, ARawImageOfAnOddSize) {
  const std::string path = images_.at("odd");
  run("head -c 5000001 /dev/urandom >'" + path + "' && truncate -s 9000001 '" + path + "' && echo x >>'" + path + "'");
  for (const size_t buffer : {size_t{4096}, size_t{100003}, 2 * kLargestPiece}) {
    const ReadImage image = readImage(path, buffer);
    EXPECT_TRUE(image.hasEnded && image.bytes == contentOf(path)) << buffer;
    EXPECT_EQ(image.facts.volume, std::nullopt);
  }
  ReadImage image;
  const auto source = openImageSource(path, {}, image.failure);
  ASSERT_FALSE(source->moveTo(7000000));
  readRest(*source, image, 4096, 7000000);
  EXPECT_TRUE(image.bytes == contentOf(path).substr(7000000));
  const auto failure = source->moveTo(10);
  EXPECT_FALSE(failure) << "after the end there is no position";
}

TEST_F(ImageSourceTest, NobodyReadsBackwards) {
  ImageFailure failure;
  const auto source = openImageSource(images_.at("win.img"), {}, failure);
  std::vector<uint8_t> buffer(4096);
  source->next(buffer);
  const auto refused = source->moveTo(10);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->reason, "it cannot be read backwards");
  EXPECT_EQ(source->next(buffer).kind, ImagePiece::Kind::failure);
}

TEST_F(ImageSourceTest, AZipFileHasExactlyOneFile) {
  writeFile(images_.at("a"), "one");
  writeFile(images_.at("b"), "two");
  const auto zip = [&](const std::string& name, const std::string& arguments) {
    run("cd '" + images_.at("") + "' && zip -q " + name + " " + arguments);
    return images_.at(name);
  };
  const std::string two = zip("two.zip", "a b");
  EXPECT_EQ(readImage(two).failure.reason, "there are several files in the zip file");
  EXPECT_FALSE(readImage(two).isOpen);
  EXPECT_EQ(readFromPipe("cat '" + two + "'").failure.reason, "there are several files in the zip file");
  run("mkdir -p '" + images_.at("folder") + "' '" + images_.at("__MACOSX") + "'");
  const std::string none = zip("none.zip", "folder");
  EXPECT_EQ(readImage(none).failure.reason, "there is no file in the zip file");
  EXPECT_EQ(readFromPipe("cat '" + none + "'").failure.reason, "there is no file in the zip file");
  const std::string secret = zip("secret.zip", "-P word a");
  EXPECT_EQ(readImage(secret).failure.reason, "the zip file is encrypted");
  EXPECT_EQ(readFromPipe("cat '" + secret + "'").failure.reason, "the zip file is encrypted");

  writeFile(images_.at("__MACOSX/._win.img"), "what the Finder knows of the file");
  writeFile(images_.at("folder/win.img"), images_.raw());
  const std::string finder = zip("finder.zip", "-r folder __MACOSX");
  EXPECT_TRUE(readImage(finder).bytes == images_.raw());
  EXPECT_TRUE(readFromPipe("cat '" + finder + "'").bytes == images_.raw());
}

TEST_F(ImageSourceTest, AZipFileThatWasWrittenToAPipeOrIsNotCompressed) {
  const std::string image = images_.at("win.img");
  run("zip -q - - <'" + image + "' | cat >'" + images_.at("piped.zip") + "'");
  EXPECT_TRUE(readImage(images_.at("piped.zip")).bytes == images_.raw());
  EXPECT_EQ(readImage(images_.at("piped.zip")).facts.size, images_.raw().size());
  EXPECT_TRUE(readFromPipe("cat '" + images_.at("piped.zip") + "'").bytes == images_.raw());
  run("zip -q -0 -j '" + images_.at("stored.zip") + "' '" + image + "'");
  EXPECT_TRUE(readImage(images_.at("stored.zip")).bytes == images_.raw());
}

TEST_F(ImageSourceTest, AGzFileMayBeFilledUpWithZeros) {
  run("gzip -c '" + images_.at("win.img") + "' >'" + images_.at("tape.gz") + "' && truncate -s %512 '" +
      images_.at("tape.gz") + "'");
  EXPECT_TRUE(readImage(images_.at("tape.gz")).bytes == images_.raw());
}

TEST_F(ImageSourceTest, WhatIsNeitherRawNorPackedIsRefused) {
  const std::string padding(5000, 'x');
  const std::pair<std::string, std::string> foreign[] = {
      {"QFI\xFB", "qcow2 image"}, {"vhdxfile", "VHDX image"}, {"7z\xBC\xAF\x27\x1C", "7z archive"}};
  for (const auto& [mark, name] : foreign) {
    writeFile(images_.at("foreign"), mark + padding);
    const ReadImage image = readImage(images_.at("foreign"));
    EXPECT_FALSE(image.isOpen);
    EXPECT_EQ(image.failure.reason, "it is a " + name + ", which is not read; a raw image of the volume is");
  }
  run("tar -C '" + images_.at("") + "' -czf '" + images_.at("win.tar.gz") + "' win.img");
  EXPECT_THAT(readImage(images_.at("win.tar.gz")).failure.reason, HasSubstr("it is a tar archive"));
}

TEST_F(ImageSourceTest, WhatIsNotThereOrEmpty) {
  EXPECT_EQ(readImage(images_.at("missing")).failure.reason, "No such file or directory");
  EXPECT_EQ(readImage(images_.at("missing")).failure.subject, images_.at("missing"));
  writeFile(images_.at("nothing"), "");
  EXPECT_EQ(readImage(images_.at("nothing")).failure.reason, "it is empty");
  EXPECT_EQ(readFromPipe("true").failure.reason, "it is empty");
  run("mkdir -p '" + images_.at("some folder") + "'");
  EXPECT_EQ(readImage(images_.at("some folder")).failure.reason, "the folder is no backup: volume.img.zst is missing");
}

TEST_F(ImageSourceTest, AWimIsRecognised) {
  std::string header = std::string("MSWIM\0\0\0", 8) + std::string("\xD0\0\0\0\0\x0D\x01\0", 8);
  header.resize(40);                                   // flags, chunk size, identifier
  header += std::string("\x01\0\x01\0\x02\0\0\0", 8);  // part 1 of 1, 2 images
  header.resize(72);
  const std::string list =
      "<WIM><TOTALBYTES>9</TOTALBYTES><IMAGE INDEX=\"1\"><TOTALBYTES>1000</TOTALBYTES><NAME>Home &amp; "
      "Work</NAME></IMAGE>"
      "<IMAGE INDEX=\"2\"><TOTALBYTES>5000000000</TOTALBYTES></IMAGE></WIM>";
  std::string utf16 = "\xFF\xFE";
  for (const char c : list) utf16 += {c, '\0'};
  std::string size(7, '\0');
  size[0] = static_cast<char>(utf16.size() & 0xFF);
  size[1] = static_cast<char>(utf16.size() >> 8);
  header += size + std::string("\x02\xD0\0\0\0\0\0\0\0", 9);  // where it is: behind the header, not packed
  header.resize(208);
  writeFile(images_.at("install"), header + utf16);
  const ReadImage image = readImage(images_.at("install"));
  ASSERT_TRUE(image.isOpen) << image.failure.reason;
  EXPECT_EQ(image.facts.kind, ImageKind::wim);
  ASSERT_TRUE(image.facts.wim);
  EXPECT_EQ(image.facts.wim->imageCount, 2U);
  ASSERT_EQ(image.facts.wim->images.size(), 2U);
  EXPECT_EQ(image.facts.wim->images[0].name, "Home & Work");
  EXPECT_EQ(image.facts.wim->images[0].size, 1000U);
  EXPECT_EQ(image.facts.wim->images[1].size, 5000000000U);
  EXPECT_FALSE(image.facts.wim->isSolid);
  EXPECT_FALSE(image.hasEnded);
  EXPECT_THAT(image.failure.reason, HasSubstr("a WIM holds files"));
}

}  // namespace
}  // namespace vorlix::test
