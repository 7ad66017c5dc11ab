// SPDX-License-Identifier: Apache-2.0
//
// Archives in XML, as people and other programs make them from binary ones, and hostile ones.
#include <gtest/gtest.h>

#include <limits>

#include "tests/unit/support/ArchiveSample.h"

namespace {

using namespace archive_test;
using vorlix::Number;

constexpr const char* kHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">\n";

Data bytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}

std::string containerOf(const std::string& objects) {
  return object(entry("$archiver", "<string>NSKeyedArchiver</string>") +
                entry("$version", "<integer>100000</integer>") + entry("$top", object(entry("root", uid(1)))) +
                entry("$objects", "<array><string>$null</string>" + objects + "</array>"));
}

// Builds an archive of a record with these entries. Its class is object 2, and `objects` start at 3.
Data xmlArchive(const std::string& entries, const std::string& objects = "") {
  return bytesOf(kHead + containerOf(record(entries, 2) + kSampleClass + objects) + "\n</plist>\n");
}

bool isRead(const std::string& file) {
  return readBack(bytesOf(file), nullptr);
}

TEST(XMLArchiveTest, IsReadLikeABinaryOne) {
  const Data archive =
      xmlArchive(entry("text", uid(3)) + entry("data", uid(4)) + entry("uuid", uid(5)) + entry("number", uid(7)) +
                     entry("absent", uid(0)) + entry("flag", "<true/>") + entry("nowhere", uid(99)),
                 "<string>a &lt;&#228;&gt;</string><data>\n\tAQI=\n\t</data>" +
                     object(entry("NS.uuidbytes", "<data>ABEiM0RVZneImaq7zN3u/w==</data>") + entry("$class", uid(6))) +
                     classNamed("NSUUID") + "<integer>-9223372036854775808</integer>");
  EXPECT_TRUE(readBack(archive, [](KeyedUnarchiver& coder) {
    EXPECT_EQ(coder.decodeText("text"), "a <\xC3\xA4>");
    EXPECT_EQ(coder.decodeData("data"), (Data{1, 2}));
    EXPECT_EQ(coder.decodeUUID("uuid")->text(), "00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_EQ(coder.decodeNumber("number"), Number::numberWithLongLong(std::numeric_limits<int64_t>::min()));
    EXPECT_TRUE(coder.containsValueForKey("absent"));
    EXPECT_FALSE(coder.decodeText("absent"));
    EXPECT_FALSE(coder.decodeText("nowhere"));
    EXPECT_TRUE(coder.decodeBool("flag"));
    EXPECT_FALSE(coder.decodeBool("number")) << "an object is no plain value";
    EXPECT_EQ(coder.decodeNumber("flag"), Number::numberWithBool(true));
  }));
}

TEST(XMLArchiveTest, AnIntegerBeyondSigned64BitsIsAbsentAndNothingElse) {
  for (const char* number : {"9223372036854775808", "18446744073709551615", "99999999999999999999999999",
                             "-9223372036854775809", "0xFFFFFFFFFFFFFFFF", "12x", "", "&#49;"}) {
    const Data archive = xmlArchive(entry("key", uid(3)) + entry("text", uid(4)),
                                    "<integer>" + std::string(number) + "</integer><string>beside</string>");
    EXPECT_TRUE(readBack(archive, [](KeyedUnarchiver& coder) {
      EXPECT_FALSE(coder.decodeNumber("key"));
      EXPECT_EQ(coder.decodeText("text"), "beside");
    })) << number;
  }
}

TEST(XMLArchiveTest, NumbersThatFitAreRead) {
  const std::pair<const char*, int64_t> numbers[] = {
      {"0", 0},    {" 12 ", 12}, {"+7", 7}, {"-1", -1}, {"9223372036854775807", std::numeric_limits<int64_t>::max()},
      {"0x10", 16}};
  for (const auto& [text, value] : numbers) {
    const Data archive = xmlArchive(entry("key", uid(3)), "<integer>" + std::string(text) + "</integer>");
    EXPECT_EQ(decoded(archive, &KeyedUnarchiver::decodeNumber), Number::numberWithLongLong(value)) << text;
  }
}

TEST(XMLArchiveTest, CommentsAndBlanksBetweenElementsAreIgnored) {
  const std::string container = containerOf(record("", 2) + kSampleClass);
  EXPECT_TRUE(isRead("<plist>" + container + "</plist>"));
  EXPECT_TRUE(isRead(" \n<!-- < --><plist version='1.0'>\t<!-- </plist> -->" + container + "\r\n</plist> <!-- -->\n"));
}

TEST(XMLArchiveTest, InputThatNoPropertyListWriterProducesIsRefused) {
  const std::string container = containerOf(record("", 2) + kSampleClass);
  ASSERT_TRUE(isRead("<plist>" + container + "</plist>"));
  for (const std::string& file : {
           "<plist>" + container,
           "<plist>" + container + "</plist>x",
           "<plist>" + container + container + "</plist>",
           "<plist>" + container + "</plist><plist></plist>",
           "<plist>x" + container + "</plist>",
           "<plist><array>" + container + "</plist></array>",
           "<plist><other>" + container + "</other></plist>",
           "<plist/>" + container,
           "<other>" + container + "</other>",
           container,
           "<!DOCTYPE plist [<!ENTITY a \"b\">]><plist>" + container + "</plist>",
           "<plist><!DOCTYPE plist>" + container + "</plist>",
           "<plist><![CDATA[" + container + "]]></plist>",
           "<plist><!-- " + container + "</plist>",
           "<plist><dict a=\"1\">" + container.substr(6) + "</plist>",
           "<plist>" + container + "</plist" + std::string(1, '\0') + ">",
           std::string("<"),
           std::string("<plist>"),
           std::string("<plist></plist>"),
       }) {
    EXPECT_FALSE(isRead(file)) << file.substr(0, 60);
  }
}

TEST(XMLArchiveTest, AnArchiveTruncatedAnywhereIsRefused) {
  const Data archive = xmlArchive(entry("key", uid(3)), "<string>text</string>");
  for (size_t size = 0; size + 1 < archive.size(); ++size) {  // the final line feed is optional
    EXPECT_FALSE(readBack(Data(archive.begin(), archive.begin() + static_cast<std::ptrdiff_t>(size)), nullptr)) << size;
  }
}

TEST(XMLArchiveTest, AnArchiveWithAnyByteChangedIsReadOrRefused) {
  const Data archive = xmlArchive(entry("key", uid(3)), "<string>t&amp;x</string>");
  for (size_t place = 0; place < archive.size(); ++place) {
    for (const uint8_t change : Data{0x01, 0x04, 0x10, 0x80, 0xFF, static_cast<uint8_t>(archive[place] ^ '<'),
                                     static_cast<uint8_t>(archive[place] ^ '/')}) {
      Data changed = archive;
      changed[place] ^= change;
      readBack(changed, [](KeyedUnarchiver& coder) { (void)coder.decodeText("key"); });
    }
  }
}

TEST(XMLArchiveTest, NestingHasALimit) {
  const auto nested = [](size_t depth) {
    std::string lists;
    for (size_t i = 0; i < depth; ++i) lists += "<array>";
    for (size_t i = 0; i < depth; ++i) lists += "</array>";
    return "<plist>" + containerOf(record("", 2) + kSampleClass + lists) + "</plist>";
  };
  EXPECT_TRUE(isRead(nested(14)));  // below the container and its list of objects
  EXPECT_FALSE(isRead(nested(15)));
  EXPECT_FALSE(isRead(nested(1000000)));
}

TEST(XMLArchiveTest, TheNumberOfElementsHasALimit) {
  const auto filled = [](size_t count) {
    std::string objects;
    for (size_t i = 0; i < count; ++i) objects += "<true/>";
    return "<plist>" + containerOf(record("", 2) + kSampleClass + objects) + "</plist>";
  };
  EXPECT_TRUE(isRead(filled(100000)));
  EXPECT_FALSE(isRead(filled(3 * KeyedUnarchiver::kMostValues)));
}

}  // namespace
