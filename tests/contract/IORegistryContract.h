// SPDX-License-Identifier: Apache-2.0
//
// The contract of every adapter of the I/O registry port. A test program provides its machines: each has a whole disk
// with a slice, and a registry that shows both.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "RegistryEntries.h"

namespace vorlix::test {

/// A machine under test. `keeper` must live as long as the registry is used.
struct RegistryMachine {
  std::shared_ptr<void> keeper;
  std::shared_ptr<IORegistry> registry;
  std::string whole;      ///< BSD name of a whole disk
  std::string slice;      ///< BSD name of a slice of that disk
  int64_t partitionID;    ///< number of the slice
  std::string sliceUUID;  ///< partition GUID of the slice, as text
  int64_t base;           ///< start of the slice in bytes
  std::string diskUUID;   ///< disk GUID, as text
};

struct RegistryCase {
  std::string name;
  std::function<RegistryMachine()> make;
};

class IORegistryContract : public testing::TestWithParam<RegistryCase> {
 protected:
  IORegistryContract() : machine_(GetParam().make()), registry_(*machine_.registry) {}

  std::shared_ptr<RegistryEntry> only(const std::string& bsdName) {
    const Entries entries = named(registry_, bsdName);
    EXPECT_EQ(entries.size(), 1U) << bsdName;
    return entries.empty() ? nullptr : entries.front();
  }

  RegistryMachine machine_;
  IORegistry& registry_;
};

TEST_P(IORegistryContract, ReturnsAPort) {
  MasterPort port = 0;
  EXPECT_EQ(registry_.masterPort(port), kKernSuccess);
  EXPECT_NE(port, 0U);
}

TEST_P(IORegistryContract, MatchesByBSDName) {
  const auto slice = only(machine_.slice);
  ASSERT_NE(slice, nullptr);
  const Dictionary properties = propertiesOf(*slice);
  EXPECT_EQ(properties.text("BSD Name"), machine_.slice);
  EXPECT_EQ(properties.integer("Partition ID"), machine_.partitionID);
  EXPECT_EQ(properties.integer("Base"), machine_.base);
  EXPECT_EQ(properties.text("UUID"), machine_.sliceUUID);
}

TEST_P(IORegistryContract, BSDNamesMatchExactly) {
  std::string upper = machine_.slice;
  std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
  ASSERT_NE(upper, machine_.slice);
  EXPECT_TRUE(named(registry_, upper).empty());
  EXPECT_TRUE(named(registry_, machine_.slice + "0").empty());
  EXPECT_TRUE(named(registry_, "").empty());
}

TEST_P(IORegistryContract, MatchesByClassWithProperties) {
  RegistryMatching conditions;
  conditions.className = "IOMedia";
  EXPECT_THAT(bsdNamesOf(matching(registry_, conditions)), testing::IsSupersetOf({machine_.whole, machine_.slice}));

  conditions.properties.set("Whole", true);
  const std::vector<std::string> wholes = bsdNamesOf(matching(registry_, conditions));
  EXPECT_THAT(wholes, testing::Contains(machine_.whole));
  EXPECT_THAT(wholes, testing::Not(testing::Contains(machine_.slice)));

  conditions.properties.set("BSD Name", std::string("nothing"));
  EXPECT_TRUE(matching(registry_, conditions).empty());
}

TEST_P(IORegistryContract, APropertyOfAnotherTypeDoesNotMatch) {
  RegistryMatching conditions;
  conditions.properties.set("Partition ID", std::to_string(machine_.partitionID));
  EXPECT_TRUE(matching(registry_, conditions).empty());
}

TEST_P(IORegistryContract, EveryConditionMustHold) {
  RegistryMatching conditions;
  conditions.className = "IOMedia";
  conditions.bsdName = machine_.slice;
  EXPECT_THAT(bsdNamesOf(matching(registry_, conditions)), testing::ElementsAre(machine_.slice));
  conditions.className = "IOPlatformExpertDevice";
  EXPECT_TRUE(matching(registry_, conditions).empty());
}

TEST_P(IORegistryContract, NoMatchIsSuccess) {
  RegistryMatching conditions;
  conditions.className = "IOUserClientClass";
  EXPECT_TRUE(matching(registry_, conditions).empty());
  conditions.className = "AppleAPFSVolume";
  EXPECT_TRUE(matching(registry_, conditions).empty());
}

TEST_P(IORegistryContract, AWalkVisitsEveryEntryOnceAndParentsFirst) {
  for (const char* const plane : {kServicePlane, kDeviceTreePlane}) {
    std::vector<std::string> seen;
    for (const auto& entry : walked(registry_, plane)) {
      const std::string path = pathOf(*entry, plane);
      EXPECT_EQ(path.rfind(std::string(plane) + ":/", 0), 0U) << path;
      EXPECT_THAT(seen, testing::Not(testing::Contains(path)));
      std::shared_ptr<RegistryEntry> parent;
      const KernReturn code = entry->parent(plane, parent);
      EXPECT_EQ(code == kKernSuccess, parent != nullptr) << path;
      EXPECT_EQ(parent == nullptr, seen.empty()) << path;
      if (parent != nullptr) {
        EXPECT_THAT(seen, testing::Contains(pathOf(*parent, plane)));
      }
      seen.push_back(path);
    }
    EXPECT_THAT(bsdNamesOf(walked(registry_, plane)), testing::IsSupersetOf({machine_.whole, machine_.slice}));
  }
}

TEST_P(IORegistryContract, ASliceIsBelowItsDiskWhichIsBelowTheRoot) {
  std::shared_ptr<RegistryEntry> entry = only(machine_.slice);
  ASSERT_NE(entry, nullptr);
  std::shared_ptr<RegistryEntry> parent;
  ASSERT_EQ(entry->parent(kServicePlane, parent), kKernSuccess);
  EXPECT_FALSE(propertiesOf(*parent).contains("BSD Name"))
      << "the parent must be the partition table, which is no medium";
  EXPECT_EQ(textOf(*parent, "UUID"), machine_.diskUUID);
  entry = parent;
  ASSERT_EQ(entry->parent(kServicePlane, parent), kKernSuccess);
  EXPECT_EQ(textOf(*parent, "BSD Name"), machine_.whole);
  EXPECT_FALSE(propertiesOf(*parent).contains("UUID")) << "it could be mistaken for a partition's identifier";
  int levels = 2;
  for (; levels < 100 && parent != nullptr; ++levels) {
    entry = parent;
    const KernReturn code = entry->parent(kServicePlane, parent);
    EXPECT_EQ(code == kKernSuccess, parent != nullptr);
  }
  EXPECT_LE(levels, 9);
}

TEST_P(IORegistryContract, AnEntryIsNotInAnotherPlane) {
  const auto entry = only(machine_.slice);
  ASSERT_NE(entry, nullptr);
  std::string path = "as before";
  EXPECT_NE(entry->path("IOPower", path), kKernSuccess);
  EXPECT_EQ(path, "as before");
  std::shared_ptr<RegistryEntry> parent = entry;
  EXPECT_NE(entry->parent("IOPower", parent), kKernSuccess);
  EXPECT_EQ(parent, nullptr);
}

TEST_P(IORegistryContract, OnePropertyEqualsItsValueAmongAllProperties) {
  const auto entry = only(machine_.slice);
  ASSERT_NE(entry, nullptr);
  const Dictionary properties = propertiesOf(*entry);
  ASSERT_FALSE(properties.values().empty());
  for (const auto& [key, value] : properties.values()) {
    if (std::holds_alternative<std::shared_ptr<const Dictionary>>(value)) continue;
    EXPECT_EQ(entry->property(key), value) << key;
  }
  EXPECT_EQ(entry->property("No Such Property"), std::nullopt);
}

TEST_P(IORegistryContract, AnEntryOutlivesItsIteratorAndItsRegistry) {
  const auto entry = only(machine_.slice);
  ASSERT_NE(entry, nullptr);
  machine_.registry.reset();
  machine_.keeper.reset();
  EXPECT_EQ(textOf(*entry, "BSD Name"), machine_.slice);
  std::shared_ptr<RegistryEntry> parent;
  EXPECT_EQ(entry->parent(kServicePlane, parent), kKernSuccess);
}

TEST_P(IORegistryContract, AnIteratorStaysAtTheEnd) {
  std::shared_ptr<RegistryIterator> iterator;
  ASSERT_EQ(registry_.matchingServices(0, {std::nullopt, machine_.slice, {}}, iterator), kKernSuccess);
  ASSERT_EQ(allOf(iterator).size(), 1U);
  EXPECT_EQ(iterator->next(), nullptr);
}

inline std::string caseName(const testing::TestParamInfo<RegistryCase>& info) {
  return info.param.name;
}

}  // namespace vorlix::test
