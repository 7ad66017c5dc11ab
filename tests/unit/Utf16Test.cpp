// SPDX-License-Identifier: Apache-2.0
//
// UTF-16 and UTF-8. The expected bytes are those of the Unicode Standard: table 3-5 for UTF-16, 3-6 for UTF-8.
#include <Vorlix/foundation/Utf16.h>
#include <gtest/gtest.h>

namespace vorlix::test {
namespace {

using Bytes16 = std::vector<uint8_t>;

TEST(Utf16, CharactersOfEachLengthInBothDirections) {
  struct Case {
    const char* utf8;
    Bytes16 utf16;
  };
  const Case cases[] = {
      {"", {}},
      {"A", {0x41, 0x00}},
      {"\x7F", {0x7F, 0x00}},
      {"\xC2\x80", {0x80, 0x00}},                      // U+0080
      {"\xDF\xBF", {0xFF, 0x07}},                      // U+07FF
      {"\xE0\xA0\x80", {0x00, 0x08}},                  // U+0800
      {"\xED\x9F\xBF", {0xFF, 0xD7}},                  // U+D7FF, before the surrogates
      {"\xEE\x80\x80", {0x00, 0xE0}},                  // U+E000, behind them
      {"\xEF\xBF\xBF", {0xFF, 0xFF}},                  // U+FFFF
      {"\xF0\x90\x80\x80", {0x00, 0xD8, 0x00, 0xDC}},  // U+10000
      {"\xF0\x9F\x98\x80", {0x3D, 0xD8, 0x00, 0xDE}},  // U+1F600
      {"\xF4\x8F\xBF\xBF", {0xFF, 0xDB, 0xFF, 0xDF}},  // U+10FFFF
      {"a\xE2\x82\xAC"
       "b",
       {0x61, 0x00, 0xAC, 0x20, 0x62, 0x00}},
  };
  for (const Case& one : cases) {
    EXPECT_EQ(utf16Bytes(one.utf8), one.utf16) << one.utf8;
    EXPECT_EQ(utf8Of(utf16Units(one.utf16)), one.utf8);
  }
}

TEST(Utf16, NulIsACharacterLikeOthers) {
  EXPECT_EQ(utf16Bytes(std::string("a\0b", 3)), (Bytes16{0x61, 0, 0, 0, 0x62, 0}));
  EXPECT_EQ(utf8Of(std::u16string_view(u"a\0b", 3)), std::string("a\0b", 3));
}

TEST(Utf16, ASurrogateWithoutItsOtherHalfIsReplaced) {
  const auto text = [](std::initializer_list<char16_t> units) { return utf8Of(std::u16string(units)); };
  EXPECT_EQ(text({0xD800}), "\xEF\xBF\xBD");
  EXPECT_EQ(text({0xDFFF}), "\xEF\xBF\xBD");
  EXPECT_EQ(text({'a', 0xDBFF, 'b'}),
            "a\xEF\xBF\xBD"
            "b");  // what follows is kept
  EXPECT_EQ(text({0xDC00, 0xD800}), "\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(text({0xD83D, 0xD83D, 0xDE00}), "\xEF\xBF\xBD\xF0\x9F\x98\x80");
  EXPECT_EQ(text({0xD83D, 0xDE00, 0xDE00}), "\xF0\x9F\x98\x80\xEF\xBF\xBD");
}

TEST(Utf16, CharactersAreTakenOneByOne) {
  const char16_t units[] = {'a', 0xD83D, 0xDE00, 0xDE00, 0xD83D};
  std::u16string_view text(units, 5);
  EXPECT_EQ(takeCharacter(text), 0x61U);
  EXPECT_EQ(takeCharacter(text), 0x1F600U);
  EXPECT_EQ(text.size(), 2U);
  EXPECT_EQ(takeCharacter(text), std::nullopt);
  EXPECT_EQ(takeCharacter(text), std::nullopt);
  EXPECT_TRUE(text.empty());
}

TEST(Utf16, ASingleByteAtTheEndIsLeftOut) {
  EXPECT_EQ(utf16Units(Bytes16{0x41, 0x00, 0x42}), u"A");
  EXPECT_EQ(utf16Units(Bytes16{0x41}), u"");
}

TEST(Utf16, BytesThatAreNoUtf8AreReplaced) {
  const Bytes16 replacement = {0xFD, 0xFF};
  EXPECT_EQ(utf16Bytes("\x80"), replacement);
  EXPECT_EQ(utf16Bytes("\xC3"), replacement);  // cut
  EXPECT_EQ(utf16Bytes("a\xC3"), (Bytes16{0x61, 0x00, 0xFD, 0xFF}));
  EXPECT_EQ(utf16Bytes("\xF0\x9F\x98"), (Bytes16{0xFD, 0xFF, 0xFD, 0xFF, 0xFD, 0xFF}));
  EXPECT_EQ(utf16Bytes("\xED\xA0\x80"), (Bytes16{0xFD, 0xFF, 0xFD, 0xFF, 0xFD, 0xFF}));  // a surrogate
}

}  // namespace
}  // namespace vorlix::test
