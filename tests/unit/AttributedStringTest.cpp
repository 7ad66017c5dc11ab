// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/AttributedString.h>
#include <Vorlix/foundation/Base64.h>
#include <Vorlix/foundation/Number.h>
#include <Vorlix/foundation/Utf8.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using vorlix::AttributedString;
using vorlix::Dictionary;
using vorlix::Number;

Dictionary font(const std::string& name) {
  Dictionary attributes;
  attributes.set("Font", name);
  return attributes;
}

TEST(AttributedStringTest, EmptyTextHasNoRuns) {
  EXPECT_TRUE(AttributedString().runs().empty());
  EXPECT_TRUE(AttributedString("", font("A")).runs().empty());
  EXPECT_EQ(AttributedString().length(), 0U);
}

TEST(AttributedStringTest, PlainTextIsOneRunWithoutAttributes) {
  const AttributedString styled("plain");
  ASSERT_EQ(styled.runs().size(), 1U);
  EXPECT_EQ(styled.runs()[0].location, 0U);
  EXPECT_EQ(styled.runs()[0].length, 5U);
  EXPECT_TRUE(styled.runs()[0].attributes->values().empty());
  EXPECT_EQ(styled.string(), "plain");
}

TEST(AttributedStringTest, RunsFollowEachOther) {
  AttributedString styled("ab", font("A"));
  styled.append("cde", font("B"));
  styled.append("", font("C"));
  ASSERT_EQ(styled.runs().size(), 2U);
  EXPECT_EQ(styled.runs()[1].location, 2U);
  EXPECT_EQ(styled.runs()[1].length, 3U);
  EXPECT_EQ(styled.runs()[1].attributes->text("Font"), "B");
  EXPECT_EQ(styled.string(), "abcde");
  EXPECT_EQ(styled.length(), 5U);
}

TEST(AttributedStringTest, EqualAttributesExtendTheRun) {
  AttributedString styled("ab", font("A"));
  styled.append("c", font("A"));
  ASSERT_EQ(styled.runs().size(), 1U);
  EXPECT_EQ(styled.runs()[0].length, 3U);
}

TEST(AttributedStringTest, LengthsCountUTF16CodeUnits) {
  // U+00E9 takes 2 bytes and 1 unit, U+2603 3 bytes and 1 unit, U+1F600 4 bytes and 2 units.
  EXPECT_EQ(AttributedString("\xC3\xA9").length(), 1U);
  EXPECT_EQ(AttributedString("\xE2\x98\x83").length(), 1U);
  EXPECT_EQ(AttributedString("\xF0\x9F\x98\x80").length(), 2U);
}

TEST(AttributedStringTest, InvalidBytesAreReplaced) {
  const AttributedString styled("a\xFFz");
  EXPECT_EQ(styled.string(), "a\xEF\xBF\xBDz");
  EXPECT_EQ(styled.length(), 3U);
}

TEST(AttributedStringTest, GivenRunsMustCoverTheText) {
  const auto run = [](size_t length) { return AttributedString::Run{99, length, nullptr}; };
  EXPECT_TRUE(AttributedString::withRuns("", {}));
  EXPECT_FALSE(AttributedString::withRuns("abc", {}));
  EXPECT_FALSE(AttributedString::withRuns("abc", {run(2)}));
  EXPECT_FALSE(AttributedString::withRuns("abc", {run(2), run(2)}));
  EXPECT_FALSE(AttributedString::withRuns("abc", {run(3), run(0)}));
  EXPECT_FALSE(AttributedString::withRuns("abc", {run(2), run(std::numeric_limits<size_t>::max())}));
  const auto styled = AttributedString::withRuns("abc", {run(1), run(2)});
  ASSERT_TRUE(styled);
  EXPECT_EQ(styled->runs()[1].location, 1U);
  EXPECT_NE(styled->runs()[1].attributes, nullptr);
}

TEST(AttributedStringTest, EqualityComparesTextAndTheAttributesOfEachRange) {
  AttributedString styled("ab", font("A"));
  styled.append("c", font("B"));
  AttributedString same("ab", font("A"));
  same.append("c", font("B"));
  AttributedString shifted("a", font("A"));
  shifted.append("bc", font("B"));
  EXPECT_TRUE(styled == same);
  EXPECT_FALSE(styled == shifted);
  EXPECT_FALSE(styled == AttributedString("abc", font("A")));
  EXPECT_FALSE(AttributedString("a", font("A")) == AttributedString("a", font("B")));
}

TEST(NumberTest, RemembersItsKind) {
  EXPECT_TRUE(Number::numberWithBool(true).isBool());
  EXPECT_FALSE(Number::numberWithLongLong(1).isBool());
  EXPECT_TRUE(Number::numberWithDouble(1).isDouble());
  EXPECT_FALSE(Number::numberWithBool(true) == Number::numberWithLongLong(1));
  EXPECT_TRUE(Number::numberWithLongLong(7) == Number::numberWithLongLong(7));
}

TEST(NumberTest, ConvertsToEachKind) {
  EXPECT_EQ(Number::numberWithBool(true).longLongValue(), 1);
  EXPECT_EQ(Number::numberWithBool(true).doubleValue(), 1.0);
  EXPECT_EQ(Number::numberWithLongLong(-5).doubleValue(), -5.0);
  EXPECT_TRUE(Number::numberWithLongLong(-5).boolValue());
  EXPECT_FALSE(Number::numberWithLongLong(0).boolValue());
  EXPECT_TRUE(Number::numberWithDouble(0.5).boolValue());
  EXPECT_EQ(Number::numberWithDouble(-2.9).longLongValue(), -2);
}

TEST(NumberTest, AFloatingPointNumberOutOfRangeIsClamped) {
  EXPECT_EQ(Number::numberWithDouble(1e300).longLongValue(), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(Number::numberWithDouble(-1e300).longLongValue(), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(Number::numberWithDouble(std::nan("")).longLongValue(), 0);
}

TEST(Utf8Test, ValidTextIsUnchanged) {
  const std::string text = "a\xC3\xA9\xE2\x98\x83\xF0\x9F\x98\x80\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF";
  EXPECT_TRUE(vorlix::isUtf8(text));
  EXPECT_EQ(vorlix::repairedUtf8(text), text);
}

TEST(Utf8Test, InvalidTextIsReportedAndRepaired) {
  const char* const wrong[] = {
      "\x80",              // continuation byte without a start
      "\xC0\x80",          // NUL, overlong
      "\xC1\xBF",          // overlong
      "\xC3",              // truncated
      "\xE0\x9F\xBF",      // overlong
      "\xE2\x98",          // truncated
      "\xED\xA0\x80",      // a surrogate
      "\xF0\x8F\xBF\xBF",  // overlong
      "\xF0\x9F\x98",      // truncated
      "\xF4\x90\x80\x80",  // beyond U+10FFFF
      "\xF5\x80\x80\x80",
      "\xFF",
  };
  for (const char* bytes : wrong) {
    EXPECT_FALSE(vorlix::isUtf8(bytes)) << testing::PrintToString(std::string(bytes));
    const std::string repaired = vorlix::repairedUtf8(bytes);
    EXPECT_TRUE(vorlix::isUtf8(repaired));
    EXPECT_EQ(repaired.size(), 3 * std::string(bytes).size());
  }
}

// Vectors of RFC 4648, section 10.
TEST(Base64Test, EncodesAndDecodesThePublishedVectors) {
  const std::pair<const char*, const char*> vectors[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"}};
  for (const auto& [bytes, text] : vectors) {
    EXPECT_EQ(vorlix::encodeBase64(bytes), text);
    EXPECT_EQ(vorlix::decodeBase64(text), bytes);
  }
  EXPECT_EQ(vorlix::encodeBase64("\xFB\xFF\xFE"), "+//+");
  EXPECT_EQ(vorlix::decodeBase64("+//+"), "\xFB\xFF\xFE");
}

TEST(Base64Test, RefusesInvalidText) {
  for (const char* text : {"Z", "Zg", "Zg=", "Zg==Zg==", "Z===", "====", "Zm9v\n", "Zm 9v", "Zm9-", "Z=9v"}) {
    EXPECT_FALSE(vorlix::decodeBase64(text)) << text;
  }
}

}  // namespace
