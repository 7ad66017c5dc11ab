// SPDX-License-Identifier: Apache-2.0
//
// The stand-in of I/O Kit's registry, and the adapter over it.
#include <IOKit/IOKitLib.h>
#include <Vorlix/platform/Platform.h>
#include <gtest/gtest-spi.h>

#include "tests/contract/RegistryEntries.h"
#include "tests/macos/standin/System.h"

namespace vorlix::test {
namespace {

class Registry : public testing::Test {
 protected:
  Registry() {
    standin::show(machine_);
    std::optional<RegistryEntryID> above;
    for (const char* name : {"Root", "Mac", "disk0", "disk1", "disk2"}) {
      Dictionary properties;
      properties.set("Name", std::string(name));
      const std::string className = std::string(name).rfind("disk", 0) == 0 ? "IOMedia" : "IOService";
      const auto made = machine_.addRegistryEntry(name, className, properties, {{kServicePlane, above}});
      if (className == "IOService") above = made;
    }
  }
  ~Registry() override { standin::showUsual(); }

  std::vector<std::string> namesOf(const Entries& entries) const {
    std::vector<std::string> names;
    for (const auto& entry : entries) names.push_back(textOf(*entry, "Name"));
    return names;
  }

  SimulatedMachine machine_;
  Platform ports_ = nativePlatform();
  IORegistry& registry_ = *ports_.ioRegistry;
};

const std::vector<std::string> kAll = {"Root", "Mac", "disk0", "disk1", "disk2"};

TEST_F(Registry, AnObjectThatIsReleasedTwiceFailsTheTest) {
  EXPECT_NONFATAL_FAILURE(IOObjectRelease(77), "not held");
}

TEST_F(Registry, AWalkThatTheRegistryChangesUnderStillMeetsEveryEntryOnce) {
  for (const unsigned met : {0U, 1U, 3U}) {
    standin::system().entriesUntilChange = met;
    EXPECT_EQ(namesOf(walked(registry_, kServicePlane)), kAll) << met;
  }
}

TEST_F(Registry, ARegistryThatChangesAllTheTimeIsNotWalkedForEver) {
  std::shared_ptr<RegistryIterator> iterator;
  ASSERT_EQ(registry_.createIterator(0, kServicePlane, iterator), kKernSuccess);
  unsigned met = 0;
  do {
    standin::system().entriesUntilChange = 0;
  } while (iterator->next() != nullptr && ++met < 1000);
  EXPECT_LT(met, 1000U);
}

TEST_F(Registry, FailuresKeepTheirCodes) {
  constexpr KernReturn kCode = static_cast<KernReturn>(0xE00002BC);
  MasterPort port = 9;
  machine_.failRegistry(RegistryCall::masterPort, kCode);
  EXPECT_EQ(registry_.masterPort(port), kCode);
  EXPECT_EQ(port, 9U);
  std::shared_ptr<RegistryIterator> iterator;
  machine_.failRegistry(RegistryCall::createIterator, kCode);
  EXPECT_EQ(registry_.createIterator(0, kServicePlane, iterator), kCode);
  machine_.failRegistry(RegistryCall::matchingServices, kCode);
  EXPECT_EQ(registry_.matchingServices(0, {"IOMedia", std::nullopt, {}}, iterator), kCode);
  EXPECT_FALSE(iterator);
}

TEST_F(Registry, FailuresOfAnEntryKeepTheirCodes) {
  constexpr KernReturn kCode = static_cast<KernReturn>(0xE00002BC);
  const auto entry = matching(registry_, {"IOMedia", std::nullopt, {}}).at(0);
  machine_.failRegistry(RegistryCall::copyProperties, kCode);
  machine_.failRegistry(RegistryCall::parent, kCode);
  std::optional<Dictionary> properties;
  std::shared_ptr<RegistryEntry> parent;
  EXPECT_EQ(entry->copyProperties(properties), kCode);
  EXPECT_FALSE(properties);
  EXPECT_EQ(entry->parent(kServicePlane, parent), kCode);
  machine_.failRegistry(RegistryCall::parent, kKernSuccess);
  EXPECT_EQ(entry->parent(kServicePlane, parent), kKernFailure) << "a success without an entry";
}

TEST_F(Registry, ConditionsThatHaveNoFormMatchNothing) {
  RegistryMatching conditions;
  conditions.bsdName = "\xFF";
  EXPECT_TRUE(matching(registry_, conditions).empty());
  conditions.bsdName.reset();
  conditions.properties.set("Name", std::string("\xFF"));
  EXPECT_TRUE(matching(registry_, conditions).empty());
  EXPECT_EQ(matching(registry_, {"IOMedia", std::nullopt, {}}).at(0)->property("\xFF"), std::nullopt);
}

TEST_F(Registry, PropertiesAreOfAnyType) {
  Dictionary inner;
  inner.set("Number", 1.5);
  auto list = std::make_shared<Array>();
  list->values = {Value(int64_t{7}), Value(std::string("seven")), Value(false)};
  Dictionary properties;
  properties.set("BSD Name", int64_t{5});
  properties.set("Whole", std::string("yes"));
  properties.set("Inner", std::make_shared<const Dictionary>(inner));
  properties.set("List", std::shared_ptr<const Array>(list));
  machine_.addRegistryEntry("odd", "Odd", properties, {{kServicePlane, std::nullopt}});
  const auto entry = matching(registry_, {"Odd", std::nullopt, {}}).at(0);
  const Dictionary seen = propertiesOf(*entry);
  EXPECT_EQ(seen.integer("BSD Name"), 5);
  EXPECT_FALSE(seen.text("BSD Name"));
  EXPECT_FALSE(seen.boolean("Whole"));
  const auto innerSeen = std::get<std::shared_ptr<const Dictionary>>(*entry->property("Inner"));
  EXPECT_EQ(innerSeen->value("Number"), Value(1.5));
  const auto listSeen = std::get<std::shared_ptr<const Array>>(*entry->property("List"));
  EXPECT_EQ(listSeen->values, list->values);
  EXPECT_TRUE(named(registry_, "5").empty());
}

}  // namespace
}  // namespace vorlix::test
