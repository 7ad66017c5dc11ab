// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <utility>

#include "tests/unit/support/ArchiveSample.h"

namespace {

using namespace archive_test;
using vorlix::AttributedString;
using vorlix::Dictionary;
using vorlix::Number;
using vorlix::URL;
using vorlix::UUID;

// The keys of a dictionary keep the order in which they were set.

TEST(KeyedArchiverTest, TheContainerHasArchiverVersionAndRoot) {
  EXPECT_EQ(xmlOf(written([](KeyedArchiver&) {})),
            "<dict><key>$version</key><integer>100000</integer><key>$archiver</key><string>NSKeyedArchiver</string>"
            "<key>$top</key><dict><key>root</key>" +
                uid(1) + "</dict><key>$objects</key><array><string>$null</string>" + object(entry("$class", uid(2))) +
                kSampleClass + "</array></dict>");
}

TEST(KeyedArchiverTest, AnAbsentRootIsTheNullObject) {
  EXPECT_NE(xmlOf(KeyedArchiver::archivedDataWithRootObject(nullptr)).find(entry("root", uid(0))), std::string::npos);
}

std::string objectsOf(const std::function<void(KeyedArchiver&)>& write) {
  const std::string xml = xmlOf(written(write));
  const std::string start = "<array><string>$null</string>";
  const size_t from = xml.find(start) + start.size();
  return xml.substr(from, xml.rfind("</array>") - from);
}

TEST(KeyedArchiverTest, AbsentValuesReferToTheNullObject) {
  EXPECT_EQ(
      objectsOf([](KeyedArchiver& coder) {
        coder.encodeText(std::nullopt, "a");
        coder.encodeMutableText(nullptr, "b");
        coder.encodeData(std::nullopt, "c");
        coder.encodeMutableData(nullptr, "d");
        coder.encodeNumber(std::nullopt, "e");
        coder.encodeUUID(std::nullopt, "f");
        coder.encodeURL(std::nullopt, "g");
        coder.encodeAttributedText(std::nullopt, "h");
        coder.encodeObject(nullptr, "i");
      }),
      record(entry("a", uid(0)) + entry("b", uid(0)) + entry("c", uid(0)) + entry("d", uid(0)) + entry("e", uid(0)) +
                 entry("f", uid(0)) + entry("g", uid(0)) + entry("h", uid(0)) + entry("i", uid(0)),
             2) +
          kSampleClass);
}

TEST(KeyedArchiverTest, ImmutableTextNumbersAndBytesAreStoredWithoutAClass) {
  EXPECT_EQ(objectsOf([](KeyedArchiver& coder) {
              coder.encodeText("text", "a");
              coder.encodeNumber(Number::numberWithBool(true), "b");
              coder.encodeNumber(Number::numberWithLongLong(42), "c");
              coder.encodeData(Data{0xDE, 0xAD}, "d");
            }),
            record(entry("a", uid(2)) + entry("b", uid(3)) + entry("c", uid(4)) + entry("d", uid(5)), 6) +
                "<string>text</string><true/><integer>42</integer><data>3q0=</data>" + kSampleClass);
}

TEST(KeyedArchiverTest, APlainBooleanIsStoredInline) {
  EXPECT_EQ(objectsOf([](KeyedArchiver& coder) {
              coder.encodeBool(true, "a");
              coder.encodeBool(false, "b");
            }),
            record(entry("a", "<true/>") + entry("b", "<false/>"), 2) + kSampleClass);
}

TEST(KeyedArchiverTest, MutableTextAndBytesAreStoredWithTheirClass) {
  const auto text = std::make_shared<const std::string>("grow");
  const auto bytes = std::make_shared<const Data>(Data{0xDE, 0xAD});
  EXPECT_EQ(objectsOf([&](KeyedArchiver& coder) {
              coder.encodeMutableText(text, "a");
              coder.encodeMutableData(bytes, "b");
            }),
            record(entry("a", uid(2)) + entry("b", uid(4)), 6) +
                object(entry("NS.string", "<string>grow</string>") + entry("$class", uid(3))) +
                classNamed("NSMutableString", "<string>NSString</string>") +
                object(entry("NS.data", "<data>3q0=</data>") + entry("$class", uid(5))) +
                classNamed("NSMutableData", "<string>NSData</string>") + kSampleClass);
}

TEST(KeyedArchiverTest, AUUIDsBytesAreInTextOrder) {
  const auto uuid = UUID::fromText("00112233-4455-6677-8899-AABBCCDDEEFF");
  EXPECT_EQ(objectsOf([&](KeyedArchiver& coder) { coder.encodeUUID(uuid, "a"); }),
            record(entry("a", uid(2)), 4) +
                object(entry("NS.uuidbytes", "<data>ABEiM0RVZneImaq7zN3u/w==</data>") + entry("$class", uid(3))) +
                classNamed("NSUUID") + kSampleClass);
}

TEST(KeyedArchiverTest, AFileURLIsPercentEncodedAndHasNoBase) {
  EXPECT_EQ(objectsOf([](KeyedArchiver& coder) { coder.encodeURL(URL::fileURLWithPath("/a b/\xC3\xA9;?#%"), "a"); }),
            record(entry("a", uid(2)), 5) +
                object(entry("NS.base", uid(0)) + entry("NS.relative", uid(3)) + entry("$class", uid(4))) +
                "<string>file:///a%20b/%C3%A9%3B%3F%23%25</string>" + classNamed("NSURL") + kSampleClass);
}

TEST(KeyedArchiverTest, AFoldersURLEndsWithASlash) {
  for (const auto& place : {std::pair("/Volumes/Disk", "file:///Volumes/Disk/"), std::pair("/", "file:///")}) {
    EXPECT_EQ(objectsOf([&](KeyedArchiver& coder) { coder.encodeURL(URL::fileURLWithPath(place.first, true), "a"); }),
              record(entry("a", uid(2)), 5) +
                  object(entry("NS.base", uid(0)) + entry("NS.relative", uid(3)) + entry("$class", uid(4))) +
                  "<string>" + place.second + "</string>" + classNamed("NSURL") + kSampleClass);
  }
}

TEST(KeyedArchiverTest, EachClassIsDescribedOnce) {
  EXPECT_EQ(objectsOf([](KeyedArchiver& coder) {
              coder.encodeUUID(UUID(), "a");
              coder.encodeUUID(UUID(), "b");
            }),
            record(entry("a", uid(2)) + entry("b", uid(4)), 5) +
                object(entry("NS.uuidbytes", "<data>AAAAAAAAAAAAAAAAAAAAAA==</data>") + entry("$class", uid(3))) +
                classNamed("NSUUID") +
                object(entry("NS.uuidbytes", "<data>AAAAAAAAAAAAAAAAAAAAAA==</data>") + entry("$class", uid(3))) +
                kSampleClass);
}

TEST(KeyedArchiverTest, EqualImmutableValuesAreStoredOnce) {
  EXPECT_EQ(
      objectsOf([](KeyedArchiver& coder) {
        coder.encodeText("same", "a");
        coder.encodeText("same", "b");
        coder.encodeNumber(Number::numberWithBool(true), "c");
        coder.encodeNumber(Number::numberWithLongLong(1), "d");
        coder.encodeNumber(Number::numberWithBool(true), "e");
      }),
      record(entry("a", uid(2)) + entry("b", uid(2)) + entry("c", uid(3)) + entry("d", uid(4)) + entry("e", uid(3)),
             5) +
          "<string>same</string><true/><integer>1</integer>" + kSampleClass);
}

TEST(KeyedArchiverTest, NaNIsNotMistakenForAnotherNumber) {
  const auto archive = objectsOf([](KeyedArchiver& coder) {
    coder.encodeNumber(Number::numberWithDouble(1.5), "a");
    coder.encodeNumber(Number::numberWithDouble(std::numeric_limits<double>::quiet_NaN()), "b");
    coder.encodeNumber(Number::numberWithDouble(0.0), "c");
    coder.encodeNumber(Number::numberWithDouble(-0.0), "d");
    coder.encodeNumber(Number::numberWithDouble(1.5), "e");
  });
  using Entry = std::pair<const char*, size_t>;
  for (const auto& [key, place] : {Entry("a", 2), Entry("b", 3), Entry("c", 4), Entry("d", 5), Entry("e", 2)}) {
    EXPECT_NE(archive.find(entry(key, uid(place))), std::string::npos) << key;
  }
}

TEST(KeyedArchiverTest, TheSameMutableTextIsStoredOnceAndAnEqualOneAgain) {
  const auto text = std::make_shared<const std::string>("x");
  const auto equal = std::make_shared<const std::string>("x");
  const std::string grown = object(entry("NS.string", "<string>x</string>") + entry("$class", uid(3)));
  EXPECT_EQ(objectsOf([&](KeyedArchiver& coder) {
              coder.encodeMutableText(text, "a");
              coder.encodeMutableText(text, "b");
              coder.encodeMutableText(equal, "c");
            }),
            record(entry("a", uid(2)) + entry("b", uid(2)) + entry("c", uid(4)), 5) + grown +
                classNamed("NSMutableString", "<string>NSString</string>") + grown + kSampleClass);
}

TEST(KeyedArchiverTest, ARecordThatRefersToItselfIsStoredOnce) {
  const auto sample = std::make_shared<Sample>(nullptr);
  sample->encode = [&](KeyedArchiver& coder) { coder.encodeObject(sample, "self"); };
  const std::string xml = xmlOf(KeyedArchiver::archivedDataWithRootObject(sample));
  EXPECT_NE(xml.find(record(entry("self", uid(1)), 2)), std::string::npos) << xml;
  sample->encode = nullptr;
}

TEST(KeyedArchiverTest, StyledTextOfOneRunHasOnlyItsDictionary) {
  Dictionary attributes;
  attributes.set("Size", int64_t{12});
  EXPECT_EQ(
      objectsOf([&](KeyedArchiver& coder) { coder.encodeAttributedText(AttributedString("ab", attributes), "a"); }),
      record(entry("a", uid(2)), 9) +
          object(entry("NSString", uid(3)) + entry("NSAttributes", uid(4)) + entry("$class", uid(8))) +
          "<string>ab</string>" +
          object(entry("NS.keys", "<array>" + uid(5) + "</array>") +
                 entry("NS.objects", "<array>" + uid(6) + "</array>") + entry("$class", uid(7))) +
          "<string>Size</string><integer>12</integer>" + classNamed("NSDictionary") + classNamed("NSAttributedString") +
          kSampleClass);
}

TEST(KeyedArchiverTest, StyledTextOfSeveralRunsHasPairsOfLengthAndIndex) {
  Dictionary attributes;
  attributes.set("Size", int64_t{12});
  AttributedString styled(std::string(300, 'x'), attributes);
  styled.append("y");
  styled.append("zz", attributes);
  const std::string xml = objectsOf([&](KeyedArchiver& coder) { coder.encodeAttributedText(styled, "a"); });
  // 300 is 0b10'0101100, which is encoded as AC 02. The pairs are 300 and index 0, 1 and index 1, 2 and index 0.
  EXPECT_NE(xml.find("<key>NS.data</key><data>rAIAAQECAA==</data>"), std::string::npos) << xml;
  EXPECT_NE(xml.find(classNamed("NSMutableArray", "<string>NSArray</string>")), std::string::npos);
}

TEST(KeyedArchiverTest, EmptyStyledTextHasNeitherAttributesNorPairs) {
  EXPECT_EQ(objectsOf([](KeyedArchiver& coder) { coder.encodeAttributedText(AttributedString(), "a"); }),
            record(entry("a", uid(2)), 5) + object(entry("NSString", uid(3)) + entry("$class", uid(4))) +
                "<string></string>" + classNamed("NSAttributedString") + kSampleClass);
}

TEST(KeyedArchiverTest, AKeyThatStartsWithADollarGetsAnotherDollar) {
  const Data archive = written([](KeyedArchiver& coder) {
    coder.encodeText("mine", "$class");
    coder.encodeBool(true, "a$b");
  });
  EXPECT_NE(xmlOf(archive).find(record(entry("$$class", uid(2)) + entry("a$b", "<true/>"), 3)), std::string::npos);
  EXPECT_EQ(decoded(archive, &KeyedUnarchiver::decodeText, "$class"), "mine");
}

TEST(KeyedArchiverTest, ALaterEntryWithTheSameKeyReplacesTheEarlierOne) {
  const Data archive = written([](KeyedArchiver& coder) {
    coder.encodeText("first", "key");
    coder.encodeText("second", "key");
  });
  EXPECT_EQ(decoded(archive, &KeyedUnarchiver::decodeText), "second");
}

TEST(KeyedArchiverTest, TextThatAPropertyListCannotHoldIsRepaired) {
  const auto there = [](const std::string& text) {
    return decoded(written([&](KeyedArchiver& coder) { coder.encodeText(text, "key"); }), &KeyedUnarchiver::decodeText);
  };
  EXPECT_EQ(there(std::string("a\0b", 3)),
            "a\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(there("a\xFF"), "a\xEF\xBF\xBD");
  EXPECT_EQ(there("$null"), "$null");
  EXPECT_EQ(there(""), "");
}

TEST(KeyedArchiverTest, AnArchiveWithMoreValuesThanReadersAcceptIsNotWritten) {
  const auto write = [](size_t count) {
    return written([&](KeyedArchiver& coder) {
      for (size_t i = 0; i < count; ++i) coder.encodeText(std::to_string(i), "key" + std::to_string(i));
    });
  };
  EXPECT_THROW(write(KeyedUnarchiver::kMostValues / 2), std::length_error);  // each has a key, a reference and a string
  const auto archive = write(KeyedUnarchiver::kMostValues / 4);
  EXPECT_GT(archive.size(), KeyedUnarchiver::kMostValues);
  EXPECT_TRUE(readBack(archive, [](KeyedUnarchiver& coder) { EXPECT_EQ(coder.decodeText("key7"), "7"); }));
}

TEST(KeyedArchiverTest, AnArchiveTooLargeForReadersIsNotWritten) {
  const Data large(KeyedUnarchiver::kLargestArchive);
  EXPECT_THROW(written([&](KeyedArchiver& coder) { coder.encodeData(large, "key"); }), std::length_error);
}

}  // namespace
