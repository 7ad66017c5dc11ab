// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/Utf8.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <optional>

#include "tests/unit/support/ArchiveSample.h"

namespace {

using namespace archive_test;
using vorlix::AttributedString;
using vorlix::UUID;

TEST(KeyedArchiveLimitsTest, DataThatIsNotAnArchiveIsRefused) {
  EXPECT_FALSE(readBack({}, nullptr));
  EXPECT_FALSE(readBack(Data(4096, 0), nullptr));
  const std::string text = "<plist><dict></dict></plist>";
  EXPECT_FALSE(readBack(Data(text.begin(), text.end()), nullptr));
  EXPECT_FALSE(readBack(binaryOf("<dict></dict>"), nullptr));
  EXPECT_FALSE(readBack(binaryOf("<array></array>"), nullptr));
  EXPECT_FALSE(readBack(binaryOf("<string>x</string>"), nullptr));
}

TEST(KeyedArchiveLimitsTest, AnotherArchiverOrVersionIsRefused) {
  const auto container = [](const std::string& archiver, const std::string& version, const std::string& null) {
    return binaryOf("<dict>" + entry("$archiver", archiver) + entry("$version", version) +
                    entry("$top", object(entry("root", uid(1)))) +
                    entry("$objects", "<array>" + null + record("", 2) + kSampleClass + "</array>") + "</dict>");
  };
  const std::string archiver = "<string>NSKeyedArchiver</string>";
  const std::string version = "<integer>100000</integer>";
  const std::string null = "<string>$null</string>";
  EXPECT_TRUE(readBack(container(archiver, version, null), nullptr));
  EXPECT_FALSE(readBack(container("<string>Other</string>", version, null), nullptr));
  EXPECT_FALSE(readBack(container(archiver, "<integer>100001</integer>", null), nullptr));
  EXPECT_FALSE(readBack(container(archiver, "<string>100000</string>", null), nullptr));
  EXPECT_FALSE(readBack(container(archiver, version, "<string>null</string>"), nullptr));
}

TEST(KeyedArchiveLimitsTest, AnArchiveTruncatedAnywhereIsRefused) {
  const Data archive = written([](KeyedArchiver& coder) { coder.encodeText("text", "key"); });
  for (size_t size = 0; size < archive.size(); ++size) {
    EXPECT_FALSE(readBack(Data(archive.begin(), archive.begin() + static_cast<std::ptrdiff_t>(size)), nullptr)) << size;
  }
}

TEST(KeyedArchiveLimitsTest, AnArchiveWithAnyByteChangedIsReadOrRefused) {
  const Data archive = written([](KeyedArchiver& coder) {
    coder.encodeText("text", "key");
    coder.encodeAttributedText(AttributedString("styled"), "styled");
    coder.encodeUUID(UUID(), "uuid");
  });
  size_t read = 0;
  size_t refused = 0;
  for (size_t place = 0; place < archive.size(); ++place) {
    for (const uint8_t change : Data{0x01, 0x10, 0x80, 0xFF}) {
      Data changed = archive;
      changed[place] ^= change;
      const bool found = readBack(changed, [](KeyedUnarchiver& coder) {
        (void)coder.decodeText("key");
        (void)coder.decodeAttributedText("styled");
        (void)coder.decodeUUID("uuid");
      });
      ++(found ? read : refused);
    }
  }
  EXPECT_GT(read, 0U);
  EXPECT_GT(refused, 0U);
}

void appendBigEndian(Data& data, uint64_t value, size_t size) {
  for (size_t i = size; i-- > 0;) data.push_back(static_cast<uint8_t>(value >> 8 * i));
}

// Builds a binary property list of these values, each given as its bytes. The last one is the root.
Data listOf(const std::vector<Data>& values) {
  const std::string magic = "bplist00";
  Data file(magic.begin(), magic.end());
  std::vector<size_t> offsets;
  for (const Data& value : values) {
    offsets.push_back(file.size());
    file.insert(file.end(), value.begin(), value.end());
  }
  const size_t table = file.size();
  for (const size_t offset : offsets) appendBigEndian(file, offset, 4);
  file.insert(file.end(), 6, 0);
  file.push_back(4);  // size of an offset
  file.push_back(1);  // size of a reference
  appendBigEndian(file, values.size(), 8);
  appendBigEndian(file, values.size() - 1, 8);
  appendBigEndian(file, table, 8);
  return file;
}

// Builds an archive of a Sample whose entry "text" refers to value `last` of these, which is object 3 of "$objects".
Data archiveAround(std::vector<Data> values, uint8_t last) {
  const auto text = [](const std::string& characters) {
    Data value{0x5F, 0x10, static_cast<uint8_t>(characters.size())};
    value.insert(value.end(), characters.begin(), characters.end());
    return value;
  };
  const auto next = [&] { return static_cast<uint8_t>(values.size()); };
  const uint8_t first = next();
  for (const char* characters : {"$archiver", "NSKeyedArchiver", "$version", "$top", "root", "$objects", "$null",
                                 "$class", "$classname", "$classes", "Sample", "text"}) {
    values.push_back(text(characters));
  }
  const auto place = [&](uint8_t index) { return static_cast<uint8_t>(first + index); };
  const uint8_t version = next();
  values.push_back({0x12, 0x00, 0x01, 0x86, 0xA0});
  values.push_back({0x80, 1});  // UID 1
  values.push_back({0xD1, place(4), static_cast<uint8_t>(version + 1)});
  values.push_back({0x80, 2});  // UID 2
  // The record: two keys, then the references to its class and its text.
  values.push_back({0xD2, place(7), place(11), static_cast<uint8_t>(version + 3), static_cast<uint8_t>(version + 8)});
  values.push_back({0xA1, place(10)});  // the names of its class
  values.push_back({0xD2, place(8), place(9), place(10), static_cast<uint8_t>(version + 5)});
  values.push_back({0xA4, place(6), static_cast<uint8_t>(version + 4), static_cast<uint8_t>(version + 6), last});
  values.push_back({0xD4, place(0), place(2), place(3), place(5), place(1), version, static_cast<uint8_t>(version + 2),
                    static_cast<uint8_t>(version + 7)});
  values.insert(values.end() - 1, Data{0x80, 3});  // the root comes last
  return listOf(values);
}

TEST(KeyedArchiveLimitsTest, AHandMadeContainerIsRead) {
  EXPECT_TRUE(readBack(archiveAround({{0x09}}, 0), nullptr));
}

TEST(KeyedArchiveLimitsTest, ValuesThatExpandBeyondMemoryAreRefused) {
  // Each of 12 arrays refers to the one before it 14 times: 14^12 values from some 200 bytes.
  std::vector<Data> values{{0x09}};
  for (uint8_t i = 0; i < 12; ++i) {
    Data array{0xAE};
    array.insert(array.end(), 14, i);
    values.push_back(array);
  }
  EXPECT_FALSE(readBack(archiveAround(values, 12), nullptr));
  values.resize(3);
  EXPECT_TRUE(readBack(archiveAround(values, 2), nullptr));
}

TEST(KeyedArchiveLimitsTest, TextThatExpandsBeyondTheLimitIsRefused) {
  constexpr size_t kSize = size_t{1} << 20;
  Data text{0x5F, 0x12};
  appendBigEndian(text, kSize, 4);
  text.insert(text.end(), kSize, 'x');
  Data many{0xAF, 0x10, 17};
  many.insert(many.end(), 17, 0);
  EXPECT_FALSE(readBack(archiveAround({text, many}, 1), nullptr));
  many = {0xAF, 0x10, 15};
  many.insert(many.end(), 15, 0);
  EXPECT_TRUE(readBack(archiveAround({text, many}, 1), nullptr));
}

TEST(KeyedArchiveLimitsTest, ValuesThatContainThemselvesAreRefused) {
  EXPECT_FALSE(readBack(archiveAround({{0xA1, 0}}, 0), nullptr));
  EXPECT_FALSE(readBack(archiveAround({{0xA1, 1}, {0xA1, 0}}, 1), nullptr));
}

TEST(KeyedArchiveLimitsTest, ArraysNestedTooDeeplyAreRefused) {
  std::vector<Data> values{{0x09}};
  for (uint8_t i = 0; i < 40; ++i) values.push_back({0xA1, i});
  EXPECT_FALSE(readBack(archiveAround(values, 40), nullptr));
}

TEST(KeyedArchiveLimitsTest, UnknownTypesOfValuesAreRefused) {
  for (const Data& value : std::vector<Data>{{0x01},
                                             {0x0A},
                                             {0x70},
                                             {0x90},
                                             {0xB0},
                                             {0xC0},
                                             {0xE0},
                                             {0xF0},
                                             {0x15},
                                             {0x20},
                                             {0x30, 0, 0, 0, 0, 0, 0, 0, 0},
                                             {0x82, 0, 0, 1}}) {
    EXPECT_FALSE(readBack(archiveAround({value}, 0), nullptr)) << static_cast<int>(value[0]);
  }
}

// 16-byte integers and the numbers that are decoded. The record that refers to one is decoded in any case.
TEST(KeyedArchiveLimitsTest, OnlyAnIntegerBeyondSigned64BitsIsAbsent) {
  using vorlix::Number;
  constexpr uint64_t kSign = uint64_t{1} << 63;
  struct Case {
    uint64_t high;
    uint64_t low;
    std::optional<Number> read;
  };
  const Case cases[] = {{0, kSign - 1, Number::numberWithLongLong(std::numeric_limits<int64_t>::max())},
                        {0, kSign, std::nullopt},
                        {0, ~uint64_t{0}, std::nullopt},
                        {1, 0, std::nullopt},
                        {~uint64_t{0}, ~uint64_t{0}, std::nullopt}};
  for (const Case& one : cases) {
    Data number{0x14};
    appendBigEndian(number, one.high, 8);
    appendBigEndian(number, one.low, 8);
    EXPECT_TRUE(readBack(archiveAround({number}, 0),
                         [&](KeyedUnarchiver& coder) {
                           EXPECT_TRUE(coder.containsValueForKey("text"));
                           EXPECT_EQ(coder.decodeNumber("text"), one.read) << one.high << " " << one.low;
                         }))
        << one.high << " " << one.low;
  }
}

// The second value overlaps the integer, so it changes when the reader replaces the integer.
TEST(KeyedArchiveLimitsTest, AValueThatOverlapsAnIntegerBeyondSigned64BitsIsReadOrRefused) {
  Data number{0x14};
  for (size_t i = 0; i < 16; ++i) number.push_back(0x14);
  const Data archive = archiveAround({number, {0xA1, 0}}, 1);
  for (size_t shift = 0; shift < 17; ++shift) {
    Data moved = archive;
    const size_t table = size_t{moved[moved.size() - 2]} << 8 | moved.back();
    moved[table + 7] = static_cast<uint8_t>(8 + shift);  // the offset of the second value
    readBack(moved, [](KeyedUnarchiver& coder) { (void)coder.decodeNumber("text"); });
  }
}

TEST(KeyedArchiveLimitsTest, CountsAndOffsetsBeyondTheFileAreRefused) {
  EXPECT_FALSE(readBack(archiveAround({{0x4F, 0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}, 0), nullptr));
  EXPECT_FALSE(readBack(archiveAround({{0xAF, 0x13, 0x80, 0, 0, 0, 0, 0, 0, 0}}, 0), nullptr));
  EXPECT_FALSE(readBack(archiveAround({{0x4F, 0x09}}, 0), nullptr));  // the count is not a number
  const Data good = archiveAround({{0x09}}, 0);
  for (const size_t field : {8U, 16U, 24U}) {
    Data wrong = good;
    std::fill_n(wrong.end() - 32 + static_cast<std::ptrdiff_t>(field), 8, uint8_t{0xFF});
    EXPECT_FALSE(readBack(wrong, nullptr)) << field;
  }
  for (const size_t field : {6U, 7U}) {
    for (const uint8_t size : Data{0, 9, 255}) {
      Data wrong = good;
      *(wrong.end() - 32 + static_cast<std::ptrdiff_t>(field)) = size;
      EXPECT_FALSE(readBack(wrong, nullptr)) << field;
    }
  }
}

TEST(KeyedArchiveLimitsTest, ANULInTextIsReplaced) {
  // "a", NUL, "b" in UTF-16; then in ASCII, where the parser stops at the NUL.
  EXPECT_EQ(decoded(archiveAround({{0x63, 0, 'a', 0, 0, 0, 'b'}}, 0), &KeyedUnarchiver::decodeText, "text"),
            "a\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(decoded(archiveAround({{0x53, 'a', 0, 'b'}}, 0), &KeyedUnarchiver::decodeText, "text"), "a");
}

TEST(KeyedArchiveLimitsTest, InvalidTextIsReplaced) {
  EXPECT_EQ(decoded(archiveAround({{0x52, 'a', 0xFF}}, 0), &KeyedUnarchiver::decodeText, "text"), "a\xEF\xBF\xBD");
  // A lone surrogate.
  const auto text = decoded(archiveAround({{0x61, 0xD8, 0x00}}, 0), &KeyedUnarchiver::decodeText, "text");
  ASSERT_TRUE(text);
  EXPECT_TRUE(vorlix::isUtf8(*text));
}

TEST(KeyedArchiveLimitsTest, AnArchiveAboveTheLimitIsRefused) {
  Data archive = written([](KeyedArchiver&) {});
  EXPECT_TRUE(readBack(archive, nullptr));
  archive.insert(archive.begin() + 8, KeyedUnarchiver::kLargestArchive, 0);
  EXPECT_FALSE(readBack(archive, nullptr));
}

TEST(KeyedArchiveLimitsTest, EntriesAfterTheLimitOnDecodedBytesAreAbsent) {
  const Data archive = written([](KeyedArchiver& coder) {
    coder.encodeData(Data(KeyedUnarchiver::kLargestArchive / 3), "large");
    coder.encodeText("after", "key");
  });
  EXPECT_TRUE(readBack(archive, [](KeyedUnarchiver& coder) {
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(coder.decodeData("large"));
    EXPECT_FALSE(coder.decodeData("large"));
  }));
}

}  // namespace
