// SPDX-License-Identifier: Apache-2.0
//
// media_type(): the type of medium that an ancestor in the registry reports.
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>

#include "tests/unit/support/DiskFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;

using MediaTypeTest = DiskTest;

Dictionary medium(const char* type) {
  return dictionaryOf({{"Device Characteristics",
                        Value(std::make_shared<const Dictionary>(dictionaryOf({{"Medium Type", textValue(type)}})))}});
}

Dictionary named(const char* name) {
  return dictionaryOf({{"BSD Name", textValue(name)}});
}

struct MediumText {
  std::array<char, 1024 + 16> bytes;
  MediumText() { bytes.fill('x'); }
  bool untouchedFrom(size_t offset) const {
    return std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(offset), bytes.end(),
                       [](char byte) { return byte == 'x'; });
  }
};

TEST_F(MediaTypeTest, AncestorGivesTheType) {
  const auto device = addService("device", medium("Solid State"));
  const auto driver = addService("driver", {}, device);
  addService("media", named("disk0"), driver);
  MediumText text;
  EXPECT_EQ(media_type("disk0", text.bytes.data()), 0);
  EXPECT_STREQ(text.bytes.data(), "Solid State");
  EXPECT_TRUE(text.untouchedFrom(1024));
  EXPECT_EQ(log(), "");
  EXPECT_THAT(machine.journal(),
              ElementsAre("registry port", "registry iterate IOService", "registry match BSD disk0"));
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(MediaTypeTest, FartherAncestorOverridesANearerOne) {
  const auto far = addService("far", medium("Rotational"));
  const auto between = addService("between", {}, far);
  const auto near = addService("near", medium("Solid State"), between);
  addService("media", named("disk0"), near);
  MediumText text;
  EXPECT_EQ(media_type("disk0", text.bytes.data()), 0);
  EXPECT_STREQ(text.bytes.data(), "Rotational");
}

TEST_F(MediaTypeTest, NineLevelsAreSearchedAndNoMore) {
  for (const int levels : {1, 8, 9, 10, 11}) {
    const std::string name = "disk" + std::to_string(levels);
    RegistryEntryID above = addService("device", medium("Solid State"));
    for (int level = 1; level < levels; ++level) above = addService("level", {}, above);
    addService("media", named(name.c_str()), above);
    MediumText text;
    EXPECT_EQ(media_type(name.c_str(), text.bytes.data()), levels <= 9 ? 0 : -1) << levels;
    EXPECT_EQ(text.untouchedFrom(0), levels > 9) << levels;
  }
}

TEST_F(MediaTypeTest, EachServiceIsSearchedSeparately) {
  // The first service finds nothing within its nine levels. The second one starts with nine levels again.
  RegistryEntryID above = root();
  for (int level = 0; level < 12; ++level) above = addService("level", {}, above);
  addService("bare", named("disk0"), above);
  RegistryEntryID device = addService("device", medium("Solid State"));
  for (int level = 1; level < 9; ++level) device = addService("level", {}, device);
  addService("media", named("disk0"), device);
  MediumText text;
  EXPECT_EQ(media_type("disk0", text.bytes.data()), 0);
  EXPECT_STREQ(text.bytes.data(), "Solid State");
}

TEST_F(MediaTypeTest, SearchThatEndsEarlyContinuesWithTheNextService) {
  const auto orphan = addService("orphan", named("disk0"));
  machine.failRegistry(RegistryCall::parent, 5, orphan);
  const auto device = addService("device", medium("Rotational"));
  addService("media", named("disk0"), device);
  MediumText text;
  EXPECT_EQ(media_type("disk0", text.bytes.data()), 0);
  EXPECT_STREQ(text.bytes.data(), "Rotational");
}

TEST_F(MediaTypeTest, SearchThatFailsBelowTheDeviceFindsNothing) {
  const auto device = addService("device", medium("Rotational"));
  const auto driver = addService("driver", {}, device);
  addService("media", named("disk0"), driver);
  machine.failRegistry(RegistryCall::parent, 5, driver);
  MediumText text;
  EXPECT_EQ(media_type("disk0", text.bytes.data()), -1);
  EXPECT_TRUE(text.untouchedFrom(0));
  EXPECT_EQ(machine.heldRegistryEntries(), 0U);
}

TEST_F(MediaTypeTest, NameThatMatchesNothingLeavesTheBufferUntouched) {
  addService("media", named("disk0"), addService("device", medium("Solid State")));
  MediumText text;
  EXPECT_EQ(media_type("disk1", text.bytes.data()), -1);
  EXPECT_TRUE(text.untouchedFrom(0));
  EXPECT_EQ(log(), "");
}

TEST_F(MediaTypeTest, CharacteristicsWithoutAMediumTypeAreIgnored) {
  const auto device = addService(
      "device",
      dictionaryOf({{"Device Characteristics",
                     Value(std::make_shared<const Dictionary>(dictionaryOf({{"Vendor", textValue("V")}})))}}));
  addService("media", named("disk0"), device);
  const auto odd = addService("odd", dictionaryOf({{"Device Characteristics", textValue("Solid State")}}));
  addService("media", named("disk1"), odd);
  for (const char* name : {"disk0", "disk1"}) {
    MediumText text;
    EXPECT_EQ(media_type(name, text.bytes.data()), -1) << name;
    EXPECT_TRUE(text.untouchedFrom(0)) << name;
  }
}

TEST_F(MediaTypeTest, FailedSearchReturnsMinusOne) {
  addService("media", named("disk0"), addService("device", medium("Solid State")));
  machine.failRegistry(RegistryCall::matchingServices, 5);
  MediumText text;
  EXPECT_EQ(media_type("disk0", text.bytes.data()), -1);
  EXPECT_TRUE(text.untouchedFrom(0));
}

TEST_F(MediaTypeTest, MissingMasterPortAndIteratorAreLoggedInHexadecimalAndIgnored) {
  addService("media", named("disk0"), addService("device", medium("Solid State")));
  machine.failRegistry(RegistryCall::masterPort, 26);
  machine.failRegistry(RegistryCall::createIterator, static_cast<KernReturn>(0xE00002C7));
  MediumText text;
  EXPECT_EQ(media_type("disk0", text.bytes.data()), 0);
  EXPECT_STREQ(text.bytes.data(), "Solid State");
  EXPECT_EQ(log(), "IOMasterPort() failed: 1a\nIORegistryCreateIterator() failed: e00002c7\n");
}

TEST_F(MediaTypeTest, LongTextStaysWithinTheBuffer) {
  addService("media", named("disk0"), addService("device", medium(std::string(5000, 'm').c_str())));
  MediumText text;
  static_cast<void>(media_type("disk0", text.bytes.data()));
  EXPECT_TRUE(text.untouchedFrom(1024));
}

}  // namespace
}  // namespace vorlix::test
