// SPDX-License-Identifier: Apache-2.0
//
// Identifiers as values: sixteen bytes in the order of their text form.
#include <Vorlix/foundation/UUID.h>
#include <gmock/gmock.h>

#include <string>

namespace vorlix::test {
namespace {

using testing::ElementsAre;

TEST(UUIDTest, BytesAreInTextOrder) {
  const auto uuid = UUID::fromText("00112233-4455-6677-8899-AABBCCDDEEFF");
  ASSERT_TRUE(uuid);
  EXPECT_THAT(uuid->bytes(), ElementsAre(0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB, 0xCC,
                                         0xDD, 0xEE, 0xFF));
}

TEST(UUIDTest, TextIsInUpperCaseAndGrouped) {
  const UUID uuid(
      UUID::Bytes{0xC1, 0x2A, 0x73, 0x28, 0xF8, 0x1F, 0x11, 0xD2, 0xBA, 0x4B, 0x00, 0xA0, 0xC9, 0x3E, 0xC9, 0x3B});
  EXPECT_EQ(uuid.text(), "C12A7328-F81F-11D2-BA4B-00A0C93EC93B");
}

TEST(UUIDTest, LowerAndMixedCaseAreReadLikeUpperCase) {
  const auto upper = UUID::fromText("C12A7328-F81F-11D2-BA4B-00A0C93EC93B");
  ASSERT_TRUE(upper);
  EXPECT_EQ(UUID::fromText("c12a7328-f81f-11d2-ba4b-00a0c93ec93b"), upper);
  EXPECT_EQ(UUID::fromText("c12A7328-F81f-11d2-Ba4B-00a0C93eC93b"), upper);
}

TEST(UUIDTest, DefaultValueIsAllZero) {
  EXPECT_EQ(UUID().text(), "00000000-0000-0000-0000-000000000000");
  EXPECT_EQ(UUID::fromText("00000000-0000-0000-0000-000000000000"), UUID());
}

TEST(UUIDTest, EqualOnlyIfEveryByteIsEqual) {
  const UUID::Bytes zero = {};
  for (size_t i = 0; i < zero.size(); ++i) {
    UUID::Bytes other = zero;
    other[i] = 1;
    EXPECT_NE(UUID(other), UUID(zero)) << i;
    EXPECT_EQ(UUID(other), UUID(other)) << i;
  }
}

TEST(UUIDTest, EveryDigitCounts) {
  const std::string zero = UUID().text();
  for (size_t i = 0; i < zero.size(); ++i) {
    if (zero[i] == '-') continue;
    for (const char digit : std::string("123456789ABCDEF")) {
      std::string text = zero;
      text[i] = digit;
      const auto uuid = UUID::fromText(text);
      ASSERT_TRUE(uuid) << text;
      EXPECT_EQ(uuid->text(), text);
    }
  }
}

TEST(UUIDTest, OtherTextIsRefused) {
  for (const char* text : {
           "",
           "-",
           "00112233445566778899AABBCCDDEEFF",        // no dashes
           "{00112233-4455-6677-8899-AABBCCDDEEFF}",  // braces
           "00112233-4455-6677-8899-AABBCCDDEEF",     // a digit too few
           "00112233-4455-6677-8899-AABBCCDDEEFF0",   // a digit too many
           " 0112233-4455-6677-8899-AABBCCDDEEFF",    // a space instead of a digit
           "+0112233-4455-6677-8899-AABBCCDDEEFF",    // a sign
           "0x112233-4455-6677-8899-AABBCCDDEEFF",    // a base-16 prefix
           "00112233-4455-6677-8899-AABBCCDDEEFG",    // G is not a digit
           "0011223-34455-6677-8899-AABBCCDDEEFF",    // a misplaced dash
           "00112233-4455-6677-8899AABBCCDDEEFF-",    // the last dash at the end
           "00112233_4455_6677_8899_AABBCCDDEEFF",    // underscores instead of dashes
           "00112233-4455-6677-8899-AABBCCDDEEFF ",   // a trailing space
           "00112233-4455-6677-8899-AABBCCDDEE\xC3\xBC",
       }) {
    EXPECT_FALSE(UUID::fromText(text)) << text;
  }
}

TEST(UUIDTest, TextWithANULIsRefused) {
  std::string text = "00112233-4455-6677-8899-AABBCCDDEEFF";
  text[35] = '\0';
  EXPECT_FALSE(UUID::fromText(text));
  EXPECT_FALSE(UUID::fromText(std::string("00112233-4455-6677-8899-AABBCCDDEEFF\0", 37)));
}

TEST(UUIDTest, OnlyTheCharactersOfTheViewAreRead) {
  const std::string_view longer = "00112233-4455-6677-8899-AABBCCDDEEFF0";
  EXPECT_TRUE(UUID::fromText(longer.substr(0, 36)));
  EXPECT_FALSE(UUID::fromText(longer.substr(0, 35)));
}

}  // namespace
}  // namespace vorlix::test
