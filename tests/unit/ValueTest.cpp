// SPDX-License-Identifier: Apache-2.0
//
// Values in dictionaries, and URLs.
#include <Vorlix/foundation/URL.h>
#include <Vorlix/foundation/Value.h>
#include <gmock/gmock.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace vorlix::test {
namespace {

using testing::ElementsAre;

const UUID kUUID(UUID::Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});

// Returns a dictionary with one value of each type. Each key names the type.
Dictionary everyType() {
  Dictionary inner;
  inner.set("Medium Type", std::string("Solid State"));
  Dictionary dictionary;
  dictionary.set("boolean", true);
  dictionary.set("integer", int64_t{-7});
  dictionary.set("real", -0.5);
  dictionary.set("text", std::string("t\xC3\xA4xt"));
  dictionary.set("data", Data{0, 255});
  dictionary.set("uuid", kUUID);
  dictionary.set("url", URL::fileURLWithPath("/Volumes/A b"));
  dictionary.set("dictionary", std::make_shared<const Dictionary>(inner));
  dictionary.set("array", std::make_shared<const Array>(Array{{int64_t{16}, std::string("Preboot")}}));
  return dictionary;
}

TEST(ValueTest, ValueIsFoundByItsKeyAndType) {
  const Dictionary dictionary = everyType();
  EXPECT_EQ(dictionary.boolean("boolean"), true);
  EXPECT_EQ(dictionary.integer("integer"), -7);
  EXPECT_EQ(dictionary.real("real"), -0.5);
  EXPECT_EQ(dictionary.text("text"), "t\xC3\xA4xt");
  EXPECT_EQ(dictionary.data("data"), (Data{0, 255}));
  EXPECT_EQ(dictionary.uuid("uuid"), kUUID);
  EXPECT_EQ(dictionary.url("url"), URL::fileURLWithPath("/Volumes/A b"));
  const auto inner = dictionary.dictionary("dictionary");
  ASSERT_NE(inner, nullptr);
  EXPECT_EQ(inner->text("Medium Type"), "Solid State");
  const auto list = dictionary.array("array");
  ASSERT_NE(list, nullptr);
  EXPECT_THAT(list->values, ElementsAre(Value(int64_t{16}), Value(std::string("Preboot"))));
}

TEST(ValueTest, TypedGettersIgnoreValuesOfOtherTypes) {
  const Dictionary dictionary = everyType();
  for (const auto& [key, value] : dictionary.values()) {
    EXPECT_EQ(dictionary.boolean(key).has_value(), key == "boolean") << key;
    EXPECT_EQ(dictionary.integer(key).has_value(), key == "integer") << key;
    EXPECT_EQ(dictionary.real(key).has_value(), key == "real") << key;
    EXPECT_EQ(dictionary.text(key).has_value(), key == "text") << key;
    EXPECT_EQ(dictionary.data(key).has_value(), key == "data") << key;
    EXPECT_EQ(dictionary.uuid(key).has_value(), key == "uuid") << key;
    EXPECT_EQ(dictionary.url(key).has_value(), key == "url") << key;
    EXPECT_EQ(dictionary.dictionary(key) != nullptr, key == "dictionary") << key;
    EXPECT_EQ(dictionary.array(key) != nullptr, key == "array") << key;
    EXPECT_TRUE(dictionary.contains(key)) << key;
    EXPECT_EQ(dictionary.value(key), value) << key;
  }
}

TEST(ValueTest, MissingKeyIsAbsent) {
  for (const Dictionary& dictionary : {Dictionary(), everyType()}) {
    EXPECT_FALSE(dictionary.contains("none"));
    EXPECT_EQ(dictionary.value("none"), std::nullopt);
    EXPECT_EQ(dictionary.boolean("none"), std::nullopt);
    EXPECT_EQ(dictionary.integer("none"), std::nullopt);
    EXPECT_EQ(dictionary.text("none"), std::nullopt);
    EXPECT_EQ(dictionary.data("none"), std::nullopt);
    EXPECT_EQ(dictionary.uuid("none"), std::nullopt);
    EXPECT_EQ(dictionary.url("none"), std::nullopt);
    EXPECT_EQ(dictionary.dictionary("none"), nullptr);
  }
}

TEST(ValueTest, KeysAreCaseSensitive) {
  Dictionary dictionary;
  dictionary.set("UUID", std::string("x"));
  EXPECT_FALSE(dictionary.contains("uuid"));
  EXPECT_TRUE(dictionary.contains("UUID"));
}

TEST(ValueTest, SettingAgainReplacesValueAndType) {
  Dictionary dictionary;
  dictionary.set("key", int64_t{1});
  dictionary.set("key", std::string("one"));
  EXPECT_EQ(dictionary.integer("key"), std::nullopt);
  EXPECT_EQ(dictionary.text("key"), "one");
  EXPECT_EQ(dictionary.values().size(), 1U);
}

TEST(ValueTest, IntegersKeepAllTheirBits) {
  for (const int64_t number : {std::numeric_limits<int64_t>::min(), int64_t{-1}, int64_t{0}, int64_t{1} << 40,
                               std::numeric_limits<int64_t>::max()}) {
    Dictionary dictionary;
    dictionary.set("Base", number);
    EXPECT_EQ(dictionary.integer("Base"), number);
  }
}

TEST(ValueTest, FalseZeroAndEmptyAreNotAbsent) {
  Dictionary dictionary;
  dictionary.set("false", false);
  dictionary.set("zero", int64_t{0});
  dictionary.set("empty", std::string());
  EXPECT_EQ(dictionary.boolean("false"), false);
  EXPECT_EQ(dictionary.integer("zero"), 0);
  EXPECT_EQ(dictionary.text("empty"), "");
}

TEST(ValueTest, CopyIsIndependentOfTheOriginal) {
  Dictionary original = everyType();
  const Dictionary copy = original;
  original.set("text", std::string("changed"));
  original.set("more", true);
  EXPECT_EQ(copy.text("text"), "t\xC3\xA4xt");
  EXPECT_FALSE(copy.contains("more"));
}

TEST(ValueTest, ValuesAreListedInKeyOrder) {
  const Dictionary dictionary = everyType();
  std::vector<std::string> keys;
  for (const auto& [key, value] : dictionary.values()) keys.push_back(key);
  EXPECT_THAT(keys, ElementsAre("array", "boolean", "data", "dictionary", "integer", "real", "text", "url", "uuid"));
}

TEST(ValueTest, URLHasItsPath) {
  EXPECT_EQ(URL().path(), "");
  EXPECT_EQ(URL::fileURLWithPath("/Volumes/A b%20\xC3\xBC").path(), "/Volumes/A b%20\xC3\xBC");
  EXPECT_EQ(URL::fileURLWithPath("/a"), URL::fileURLWithPath("/a"));
  EXPECT_NE(URL::fileURLWithPath("/a"), URL::fileURLWithPath("/b"));
}

}  // namespace
}  // namespace vorlix::test
