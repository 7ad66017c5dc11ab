// SPDX-License-Identifier: Apache-2.0
//
// Boot configuration stores as bytes: the check that a file is a hive, and the identifiers in it. The tests build the
// hive by hand: a base block and one bin, as in the Windows registry file format specification (Suhanov).
#include <Vorlix/StoreSlots.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

using Bytes = std::vector<uint8_t>;

void putWord(Bytes& bytes, size_t offset, uint32_t value) {
  for (size_t i = 0; i < 4; ++i) bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

void putText(Bytes& bytes, size_t offset, const std::string& text) {
  std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

// All other words are zero, so the checksum can be checked by eye: "regf" is 66 67 65 72, the size 00 20 00 00.
Bytes hive() {
  Bytes bytes(4096 + 8192);
  putText(bytes, 0, "regf");
  putWord(bytes, 0x28, 0x2000);
  putText(bytes, 4096, "hbin");
  putWord(bytes, 0x1FC, 0x66676572 ^ 0x2000);
  return bytes;
}

TEST(StoreTemplateTest, AHiveIsAccepted) {
  EXPECT_EQ(whyNoHive(hive()), std::nullopt);
  Bytes longer = hive();
  longer.resize(longer.size() + 100);  // a file may be longer than its bins
  EXPECT_EQ(whyNoHive(longer), std::nullopt);
}

TEST(StoreTemplateTest, OtherFilesAreRefusedWithTheReason) {
  EXPECT_THAT(whyNoHive({}), Optional(HasSubstr("empty")));
  EXPECT_THAT(whyNoHive(Bytes{'r', 'e', 'g'}), Optional(HasSubstr("no registry hive")));
  EXPECT_THAT(whyNoHive(Bytes(20000)), Optional(HasSubstr("no registry hive")));
  const Bytes whole = hive();
  for (const size_t size : {size_t{4}, size_t{508}, size_t{4096}, size_t{8191}, whole.size() - 1}) {
    EXPECT_THAT(whyNoHive(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))),
                Optional(HasSubstr("cut off")))
        << size;
  }
  for (const size_t at : {size_t{4}, size_t{0x28}, size_t{0x1FB}, size_t{0x1FC}, size_t{0x1FF}}) {
    Bytes damaged = whole;
    damaged[at] ^= 1;
    EXPECT_THAT(whyNoHive(damaged), Optional(HasSubstr("checksum"))) << at;
  }
  for (const uint32_t size : {0U, 0x2001U}) {
    Bytes odd = whole;
    putWord(odd, 0x28, size);
    putWord(odd, 0x1FC, 0x66676572 ^ size);
    EXPECT_THAT(whyNoHive(odd), Optional(HasSubstr("impossible size"))) << size;
  }
  Bytes large = whole;
  putWord(large, 0x28, 0xFFFFF000);
  putWord(large, 0x1FC, 0x66676572 ^ 0xFFFFF000);
  EXPECT_THAT(whyNoHive(large), Optional(HasSubstr("cut off")));
  Bytes noBin = whole;
  noBin[4096] = 'H';
  EXPECT_THAT(whyNoHive(noBin), Optional(HasSubstr("without data")));
}

TEST(StoreTemplateTest, ReservedChecksumsAreReplaced) {
  Bytes zero = hive();
  putWord(zero, 4, 0x66676572 ^ 0x2000);  // the sum is 0
  putWord(zero, 0x1FC, 1);
  EXPECT_EQ(whyNoHive(zero), std::nullopt);
  Bytes ones = hive();
  putWord(ones, 4, ~(0x66676572U ^ 0x2000U));  // the sum is ~0
  putWord(ones, 0x1FC, 0xFFFFFFFE);
  EXPECT_EQ(whyNoHive(ones), std::nullopt);
}

TEST(StoreTemplateTest, IdentifiersGoToTheirSlotsAndNowhereElse) {
  StoreIdentifiers identifiers;
  identifiers.partition.fill(0xAA);
  identifiers.disk.fill(0xDD);
  const Bytes store = storeWithIdentifiers(Bytes(20000, 0x11), kStoreModeSCCM, identifiers);
  Bytes expected(20000, 0x11);
  for (const std::ptrdiff_t offset : {8424, 9872}) std::fill_n(expected.begin() + offset, 16, 0xAA);
  for (const std::ptrdiff_t offset : {8448, 9896, 11660, 19284}) std::fill_n(expected.begin() + offset, 16, 0xDD);
  EXPECT_EQ(store, expected);
  const Bytes grown = storeWithIdentifiers(Bytes(10000, 0x11), kStoreModeSCCM, identifiers);
  std::fill(expected.begin() + 10000, expected.end(), 0);
  expected.resize(19300);
  for (const std::ptrdiff_t offset : {11660, 19284}) std::fill_n(expected.begin() + offset, 16, 0xDD);
  EXPECT_EQ(grown, expected);
}

TEST(StoreTemplateTest, SlotsOutsideDeviceElementsAreListed) {
  Bytes store(20000);
  const auto addElement = [&](size_t partitionGUID) {
    putWord(store, partitionGUID - 0x10, 6);
    putWord(store, partitionGUID - 0x08, 0x48);
  };
  EXPECT_THAT(oddSlots(store, kStoreModeSCCM), ElementsAre(8424, 8448, 9872, 9896, 11660, 19284));
  for (const size_t place : {8424U, 9872U, 11660U - 24, 19284U - 24}) addElement(place);
  EXPECT_THAT(oddSlots(store, kStoreModeSCCM), IsEmpty());
  putWord(store, 8424 + 0x14, 2);  // 0 is GPT, 1 is MBR
  EXPECT_THAT(oddSlots(store, kStoreModeSCCM), ElementsAre(8424, 8448));
  EXPECT_THAT(oddSlots({}, kStoreModeSCCM), ElementsAre(8424, 8448, 9872, 9896, 11660, 19284));
}

}  // namespace
}  // namespace vorlix::test
