// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

#include "tests/unit/support/ArchiveSample.h"

namespace {

using namespace archive_test;
using vorlix::Array;
using vorlix::AttributedString;
using vorlix::Dictionary;
using vorlix::Number;
using vorlix::URL;
using vorlix::UUID;
using vorlix::Value;

TEST(KeyedUnarchiverTest, EachKindSurvivesARoundTrip) {
  Dictionary attributes;
  attributes.set("bool", true);
  attributes.set("int", int64_t{-7});
  attributes.set("text", std::string("t"));
  attributes.set("data", Data{1, 2});
  attributes.set("uuid", UUID::fromText("00112233-4455-6677-8899-AABBCCDDEEFF").value());
  attributes.set("url", URL::fileURLWithPath("/a b"));
  AttributedString styled("one \xE2\x98\x83", attributes);
  styled.append("\xF0\x9F\x98\x80 two");
  const int64_t numbers[] = {
      0, 1, -1, 255, -256, std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min()};
  const Data archive = written([&](KeyedArchiver& coder) {
    coder.encodeText("text \xE2\x98\x83\xF0\x9F\x98\x80", "text");
    coder.encodeMutableText(std::make_shared<const std::string>("grow"), "mutableText");
    coder.encodeData(Data{}, "data");
    coder.encodeMutableData(std::make_shared<const Data>(Data{0, 255}), "mutableData");
    for (const int64_t number : numbers) coder.encodeNumber(Number::numberWithLongLong(number), std::to_string(number));
    coder.encodeNumber(Number::numberWithDouble(0.1), "real");
    coder.encodeNumber(Number::numberWithBool(false), "bool");
    coder.encodeUUID(UUID::fromText("00112233-4455-6677-8899-AABBCCDDEEFF"), "uuid");
    coder.encodeURL(URL::fileURLWithPath("/Volumes/My Disk"), "url");
    coder.encodeAttributedText(styled, "styled");
    coder.encodeAttributedText(AttributedString(), "unstyled");
    coder.encodeObject(std::make_shared<Sample>([](KeyedArchiver& below) { below.encodeText("inner", "text"); }),
                       "object");
  });
  bool nested = false;
  EXPECT_TRUE(readBack(archive, [&](KeyedUnarchiver& coder) {
    if (coder.decodeText("text") == "inner") {
      nested = true;
      return;
    }
    EXPECT_EQ(coder.decodeText("text"), "text \xE2\x98\x83\xF0\x9F\x98\x80");
    EXPECT_EQ(coder.decodeText("mutableText"), "grow");
    EXPECT_EQ(coder.decodeData("data"), Data{});
    EXPECT_EQ(coder.decodeData("mutableData"), (Data{0, 255}));
    for (const int64_t number : numbers) {
      EXPECT_EQ(coder.decodeNumber(std::to_string(number)), Number::numberWithLongLong(number));
    }
    EXPECT_EQ(coder.decodeNumber("real"), Number::numberWithDouble(0.1));
    EXPECT_EQ(coder.decodeNumber("bool"), Number::numberWithBool(false));
    EXPECT_EQ(coder.decodeUUID("uuid")->text(), "00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_EQ(coder.decodeURL("url")->path(), "/Volumes/My Disk");
    EXPECT_TRUE(coder.decodeAttributedText("styled") == styled);
    EXPECT_TRUE(coder.decodeAttributedText("unstyled") == AttributedString());
    EXPECT_NE(coder.decodeObject<Sample>("object"), nullptr);
    EXPECT_EQ(coder.decodeText("text"), "text \xE2\x98\x83\xF0\x9F\x98\x80");  // decoding continues in the outer record
  }));
  EXPECT_TRUE(nested);
}

TEST(KeyedUnarchiverTest, APlainBooleanIsANumberWhenRequestedAsAnObject) {
  const Data archive = written([](KeyedArchiver& coder) { coder.encodeBool(true, "key"); });
  EXPECT_EQ(decoded(archive, &KeyedUnarchiver::decodeNumber), Number::numberWithBool(true));
  EXPECT_TRUE(decoded(archive, &KeyedUnarchiver::decodeBool));
}

TEST(KeyedUnarchiverTest, ANumberObjectIsNotAPlainBoolean) {
  const Data archive = written([](KeyedArchiver& coder) { coder.encodeNumber(Number::numberWithBool(true), "key"); });
  EXPECT_FALSE(decoded(archive, &KeyedUnarchiver::decodeBool));
}

TEST(KeyedUnarchiverTest, AMissingEntryIsAbsentAndNotContained) {
  EXPECT_TRUE(readBack(archiveOf(record(entry("there", uid(0)), 2) + kSampleClass), [](KeyedUnarchiver& coder) {
    EXPECT_FALSE(coder.containsValueForKey("key"));
    EXPECT_TRUE(coder.containsValueForKey("there"));
    for (const char* key : {"key", "there"}) {
      EXPECT_FALSE(coder.decodeText(key));
      EXPECT_FALSE(coder.decodeData(key));
      EXPECT_FALSE(coder.decodeNumber(key));
      EXPECT_FALSE(coder.decodeUUID(key));
      EXPECT_FALSE(coder.decodeURL(key));
      EXPECT_FALSE(coder.decodeAttributedText(key));
      EXPECT_FALSE(coder.decodeBool(key));
      EXPECT_EQ(coder.decodeObject<Sample>(key), nullptr);
    }
  }));
}

TEST(KeyedUnarchiverTest, AnObjectOfAnotherClassIsAbsent) {
  const Data archive = written([](KeyedArchiver& coder) {
    coder.encodeText("text", "text");
    coder.encodeData(Data{1}, "data");
    coder.encodeNumber(Number::numberWithLongLong(1), "number");
    coder.encodeUUID(UUID(), "uuid");
    coder.encodeURL(URL::fileURLWithPath("/"), "url");
    coder.encodeAttributedText(AttributedString("a"), "styled");
    coder.encodeMutableText(std::make_shared<const std::string>("a"), "mutableText");
    coder.encodeMutableData(std::make_shared<const Data>(), "mutableData");
    coder.encodeBool(true, "bool");
  });
  EXPECT_TRUE(readBack(archive, [](KeyedUnarchiver& coder) {
    for (const char* key : {"text", "data", "number", "uuid", "url", "styled", "mutableText", "mutableData", "bool"}) {
      const std::string name = key;
      EXPECT_EQ(coder.decodeText(name).has_value(), name == "text" || name == "mutableText") << name;
      EXPECT_EQ(coder.decodeData(name).has_value(), name == "data" || name == "mutableData") << name;
      EXPECT_EQ(coder.decodeNumber(name).has_value(), name == "number" || name == "bool") << name;
      EXPECT_EQ(coder.decodeUUID(name).has_value(), name == "uuid") << name;
      EXPECT_EQ(coder.decodeURL(name).has_value(), name == "url") << name;
      EXPECT_EQ(coder.decodeAttributedText(name).has_value(), name == "styled") << name;
      EXPECT_EQ(coder.decodeObject<Sample>(name), nullptr) << name;
    }
  }));
}

TEST(KeyedUnarchiverTest, ARootOfAnotherClassIsRefused) {
  EXPECT_FALSE(readBack(archiveOf(record("", 2) + classNamed("Other")), nullptr));
}

TEST(KeyedUnarchiverTest, ASubclassIsAccepted) {
  EXPECT_TRUE(readBack(archiveOf(record("", 2) + classNamed("Special", "<string>Sample</string>")), nullptr));
}

TEST(KeyedUnarchiverTest, ARecordWithoutAValidClassIsRefused) {
  EXPECT_FALSE(readBack(archiveOf("<dict></dict>"), nullptr));
  EXPECT_FALSE(readBack(archiveOf(record("", 1)), nullptr));
  EXPECT_FALSE(readBack(archiveOf(record("", 99)), nullptr));
  EXPECT_FALSE(readBack(archiveOf(record("", 0)), nullptr));
  EXPECT_FALSE(readBack(archiveOf(record("", 2) + "<string>Sample</string>"), nullptr));
  EXPECT_FALSE(readBack(archiveOf(object(entry("$class", "<string>Sample</string>"))), nullptr));
  EXPECT_FALSE(readBack(archiveOf(record("", 2) + object(entry("$classes", "<array><string>Sample</string></array>"))),
                        nullptr));
}

TEST(KeyedUnarchiverTest, AReferenceToAMissingObjectIsAbsent) {
  EXPECT_FALSE(readBack(archiveOf("", uid(99)), nullptr));
  EXPECT_FALSE(decoded(archiveWithEntry(""), &KeyedUnarchiver::decodeText));
  EXPECT_FALSE(
      decoded(archiveOf(record(entry("key", uid(4294967295)), 2) + kSampleClass), &KeyedUnarchiver::decodeText));
}

TEST(KeyedUnarchiverTest, AnInlineValueIsNotDecodedAsAnObject) {
  const Data archive = archiveOf(record(entry("key", "<string>bare</string>"), 2) + kSampleClass);
  EXPECT_FALSE(decoded(archive, &KeyedUnarchiver::decodeText));
}

TEST(KeyedUnarchiverTest, ARecordThatContainsItselfIsAbsent) {
  std::vector<bool> found;
  EXPECT_TRUE(readBack(archiveOf(record(entry("key", uid(1)), 2) + kSampleClass),
                       [&](KeyedUnarchiver& coder) { found.push_back(coder.decodeObject<Sample>("key") != nullptr); }));
  EXPECT_EQ(found, std::vector<bool>{false});
}

TEST(KeyedUnarchiverTest, RecordsNestedTooDeeplyAreAbsent) {
  // Object 1 is the class. Each record refers to the next one.
  std::string objects = kSampleClass;
  constexpr size_t kCount = 40;
  for (size_t i = 0; i < kCount; ++i) objects += record(entry("key", uid(i + 3)), 1);
  size_t depth = 0;
  EXPECT_TRUE(readBack(archiveOf(objects, uid(2)), [&](KeyedUnarchiver& coder) {
    ++depth;
    (void)coder.decodeObject<Sample>("key");
  }));
  EXPECT_EQ(depth, KeyedUnarchiver::kDeepestNesting);
}

struct Failing {
  static constexpr const char* kArchiveClass = "Sample";
  static std::shared_ptr<Failing> initWithCoder(KeyedUnarchiver&) { throw std::runtime_error("no"); }
};

TEST(KeyedUnarchiverTest, DecodingContinuesAfterARecordThatFails) {
  const Data archive = archiveOf(record(entry("key", uid(3)) + entry("text", uid(4)), 2) + kSampleClass +
                                 record("", 2) + "<string>outer</string>");
  EXPECT_TRUE(readBack(archive, [](KeyedUnarchiver& coder) {
    EXPECT_THROW((void)coder.decodeObject<Failing>("key"), std::runtime_error);
    EXPECT_EQ(coder.decodeText("text"), "outer");
  }));
}

TEST(KeyedUnarchiverTest, AUUIDOfAnotherSizeIsAbsent) {
  for (const char* bytes : {"", "AAAAAAAAAAAAAAAAAAAA", "AAAAAAAAAAAAAAAAAAAAAAA="}) {
    const Data archive = archiveWithEntry(
        object(entry("NS.uuidbytes", "<data>" + std::string(bytes) + "</data>") + entry("$class", uid(4))) +
        classNamed("NSUUID"));
    EXPECT_FALSE(decoded(archive, &KeyedUnarchiver::decodeUUID)) << bytes;
  }
}

// Object 3 has its base in object 6, whose string is object 7.
std::optional<URL> urlFrom(const std::string& relative, const std::string& base = "") {
  return decoded(
      archiveWithEntry(
          object(entry("NS.base", uid(base.empty() ? 0 : 6)) + entry("NS.relative", uid(4)) + entry("$class", uid(5))) +
          "<string>" + relative + "</string>" + classNamed("NSURL") +
          object(entry("NS.base", uid(0)) + entry("NS.relative", uid(7)) + entry("$class", uid(5))) + "<string>" +
          base + "</string>"),
      &KeyedUnarchiver::decodeURL);
}

TEST(KeyedUnarchiverTest, FileURLsBecomePaths) {
  EXPECT_EQ(urlFrom("file:///Volumes/Disk/")->path(), "/Volumes/Disk");
  EXPECT_EQ(urlFrom("file:///")->path(), "/");
  EXPECT_EQ(urlFrom("file://localhost/a%20b%C3%A9")->path(), "/a b\xC3\xA9");
  EXPECT_EQ(urlFrom("file:/a")->path(), "/a");
  EXPECT_EQ(urlFrom("file:///a?query#fragment")->path(), "/a");
}

TEST(KeyedUnarchiverTest, ATrailingSlashMarksAFolder) {
  EXPECT_TRUE(urlFrom("file:///Volumes/Disk/")->hasDirectoryPath());
  EXPECT_TRUE(urlFrom("file:///")->hasDirectoryPath());
  EXPECT_TRUE(urlFrom("a/", "file:///Volumes/")->hasDirectoryPath());
  EXPECT_FALSE(urlFrom("file:///Volumes/Disk")->hasDirectoryPath());
  EXPECT_EQ(*urlFrom("file:///Volumes/Disk/"), *urlFrom("file:///Volumes/Disk")) << "both refer to the same path";
}

TEST(KeyedUnarchiverTest, ARelativeURLIsResolved) {
  EXPECT_EQ(urlFrom("Disk", "file:///Volumes/")->path(), "/Volumes/Disk");
  EXPECT_EQ(urlFrom("Disk", "file:///Volumes")->path(), "/Disk");
  EXPECT_EQ(urlFrom("b/../c", "file:///Volumes/a")->path(), "/Volumes/c");
  EXPECT_EQ(urlFrom("/abs", "file:///Volumes/a")->path(), "/abs");
  EXPECT_EQ(urlFrom("", "file:///Volumes/a")->path(), "/Volumes/a");
}

TEST(KeyedUnarchiverTest, OtherURLsAreAbsent) {
  for (const char* text : {"https://example.com/a", "file://server/share", "relative", "", "//host/a", "file:a",
                           "file:///%", "file:///%2", "file:///%GG", "file:///a%00b"}) {
    EXPECT_FALSE(urlFrom(text)) << text;
  }
}

TEST(KeyedUnarchiverTest, AURLThatIsItsOwnBaseIsAbsent) {
  const Data archive =
      archiveWithEntry(object(entry("NS.base", uid(3)) + entry("NS.relative", uid(4)) + entry("$class", uid(5))) +
                       "<string>relative</string>" + classNamed("NSURL"));
  EXPECT_FALSE(decoded(archive, &KeyedUnarchiver::decodeURL));
}

// Decodes styled text "abc" in object 3 with these additional members. `objects` start at number 6.
std::optional<AttributedString> styledFrom(const std::string& members, const std::string& objects) {
  return decoded(archiveWithEntry(object(entry("NSString", uid(4)) + members + entry("$class", uid(5))) +
                                  "<string>abc</string>" + classNamed("NSAttributedString") + objects),
                 &KeyedUnarchiver::decodeAttributedText);
}

std::string dictionaryObject(const std::string& keys, const std::string& values, size_t classPlace) {
  return object(entry("NS.keys", "<array>" + keys + "</array>") + entry("NS.objects", "<array>" + values + "</array>") +
                entry("$class", uid(classPlace)));
}

TEST(KeyedUnarchiverTest, StyledTextWithoutAttributesIsOnePlainRun) {
  const auto styled = styledFrom("", "");
  ASSERT_TRUE(styled);
  EXPECT_TRUE(*styled == AttributedString("abc"));
}

// Objects 6 to 10: the pairs, an array of one dictionary, the dictionary, and both classes.
std::optional<AttributedString> styledWithPairs(const std::string& base64) {
  return styledFrom(entry("NSAttributes", uid(7)) + entry("NSAttributeInfo", uid(6)),
                    "<data>" + base64 + "</data>" +
                        object(entry("NS.objects", "<array>" + uid(8) + "</array>") + entry("$class", uid(10))) +
                        dictionaryObject("", "", 9) + classNamed("NSDictionary") + classNamed("NSArray"));
}

TEST(KeyedUnarchiverTest, PairsThatDoNotFitTheTextAreRefused) {
  EXPECT_TRUE(styledWithPairs("AwA="));           // 3, 0
  EXPECT_TRUE(styledWithPairs("AQACAA=="));       // 1, 0, 2, 0
  EXPECT_FALSE(styledWithPairs(""));              // no pairs
  EXPECT_FALSE(styledWithPairs("AgA="));          // 2, 0: too short
  EXPECT_FALSE(styledWithPairs("BAA="));          // 4, 0: too long
  EXPECT_FALSE(styledWithPairs("AwE="));          // 3, 1: no such dictionary
  EXPECT_FALSE(styledWithPairs("Aw=="));          // 3 without an index
  EXPECT_FALSE(styledWithPairs("AwAA"));          // 3, 0, and an incomplete pair
  EXPECT_FALSE(styledWithPairs("AAADAA=="));      // 0, 0, 3, 0: an empty run
  EXPECT_FALSE(styledWithPairs("/////////w8A"));  // an unterminated number
}

TEST(KeyedUnarchiverTest, AttributesOfUnknownTypesAreOmitted) {
  const auto styled =
      styledFrom(entry("NSAttributes", uid(6)),
                 dictionaryObject(uid(8) + uid(9) + uid(10), uid(11) + uid(12) + uid(13), 7) +
                     classNamed("NSDictionary") + "<string>Font</string><string>Size</string><string>Half</string>" +
                     record("", 14) + "<integer>12</integer><date>2026-01-01T00:00:00Z</date>" + classNamed("NSFont"));
  ASSERT_TRUE(styled);
  ASSERT_EQ(styled->runs().size(), 1U);
  EXPECT_EQ(styled->runs()[0].attributes->values().size(), 1U);
  EXPECT_EQ(styled->runs()[0].attributes->integer("Size"), 12);
}

TEST(KeyedUnarchiverTest, AListKeepsItsOrderWithoutUnknownValues) {
  const auto styled =
      styledFrom(entry("NSAttributes", uid(6)),
                 dictionaryObject(uid(8), uid(9), 7) + classNamed("NSDictionary") + "<string>List</string>" +
                     object("<key>NS.objects</key><array>" + uid(11) + uid(12) + uid(8) + uid(9) + uid(11) +
                            "</array>" + entry("$class", uid(10))) +
                     classNamed("NSArray") + "<real>0.5</real><date>2026-01-01T00:00:00Z</date>");
  ASSERT_TRUE(styled);
  const auto list = styled->runs()[0].attributes->array("List");
  ASSERT_NE(list, nullptr);  // without the date and without itself
  EXPECT_EQ(list->values, (std::vector<Value>{0.5, std::string("List"), 0.5}));
}

TEST(KeyedUnarchiverTest, ListsNestedTooDeeplyAreOmitted) {
  std::string objects = dictionaryObject(uid(8), uid(10), 7) + classNamed("NSDictionary") + "<string>down</string>" +
                        classNamed("NSArray");  // 6 to 9
  for (size_t i = 10; i < 50; ++i) {
    objects += object("<key>NS.objects</key><array>" + uid(i + 1) + "</array>" + entry("$class", uid(9)));
  }
  const auto styled = styledFrom(entry("NSAttributes", uid(6)), objects);
  ASSERT_TRUE(styled);
  auto level = styled->runs()[0].attributes->array("down");
  unsigned depth = 1;  // the dictionary
  while (level != nullptr) {
    ++depth;
    const auto* const below =
        level->values.empty() ? nullptr : std::get_if<std::shared_ptr<const Array>>(&level->values.front());
    level = below == nullptr ? nullptr : *below;
  }
  EXPECT_EQ(depth, KeyedUnarchiver::kDeepestNesting);
}

TEST(KeyedUnarchiverTest, ADictionaryThatContainsItselfIsOmitted) {
  const auto styled = styledFrom(entry("NSAttributes", uid(6)), dictionaryObject(uid(8) + uid(9), uid(6) + uid(8), 7) +
                                                                    classNamed("NSDictionary") +
                                                                    "<string>Self</string><string>Text</string>");
  ASSERT_TRUE(styled);
  EXPECT_FALSE(styled->runs()[0].attributes->contains("Self"));
  EXPECT_EQ(styled->runs()[0].attributes->text("Text"), "Self");
}

TEST(KeyedUnarchiverTest, DictionariesNestedTooDeeplyAreOmitted) {
  std::string objects = classNamed("NSDictionary") + "<string>down</string>";  // 6 and 7
  for (size_t i = 8; i < 48; ++i) objects += dictionaryObject(uid(7), uid(i + 1), 6);
  const auto styled = styledFrom(entry("NSAttributes", uid(8)), objects);
  ASSERT_TRUE(styled);
  unsigned depth = 0;
  for (auto level = styled->runs()[0].attributes; level != nullptr; level = level->dictionary("down")) ++depth;
  EXPECT_EQ(depth, KeyedUnarchiver::kDeepestNesting);
}

TEST(KeyedUnarchiverTest, ADictionaryWithMoreKeysThanValuesIsRefused) {
  EXPECT_FALSE(styledFrom(entry("NSAttributes", uid(6)), dictionaryObject(uid(8) + uid(8), uid(8), 7) +
                                                             classNamed("NSDictionary") + "<string>x</string>"));
}

}  // namespace
