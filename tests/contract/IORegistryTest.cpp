// SPDX-License-Identifier: Apache-2.0
//
// Checks that the simulated machine fulfils the contract of the I/O registry.
#include "IORegistryContract.h"

#include <Vorlix/platform/simulated/SimulatedMachine.h>
#ifdef VORLIX_MACOS_STANDINS
#include "tests/macos/standin/System.h"
#endif

namespace vorlix::test {
namespace {

constexpr const char* kSliceUUID = "00112233-4455-6677-8899-AABBCCDDEEFF";
constexpr const char* kDiskUUID = "3F2504E0-4F89-41D3-9A0C-0305E82C3301";

RegistryMachine simulated() {
  const auto machine = std::make_shared<SimulatedMachine>();
  const auto under = [](std::optional<RegistryEntryID> parent) {
    return std::map<std::string, std::optional<RegistryEntryID>>{{kServicePlane, parent}, {kDeviceTreePlane, parent}};
  };
  const RegistryEntryID root = machine->addRegistryEntry("Root", "IORegistryEntry", {}, under(std::nullopt));
  const RegistryEntryID expert = machine->addRegistryEntry("Mac", "IOPlatformExpertDevice", {}, under(root));
  Dictionary whole;
  whole.set("BSD Name", std::string("disk0"));
  whole.set("Whole", true);
  const RegistryEntryID disk = machine->addRegistryEntry("Disk Media", "IOMedia", whole, under(expert));
  Dictionary table;
  table.set("UUID", std::string(kDiskUUID));
  const RegistryEntryID scheme =
      machine->addRegistryEntry("IOGUIDPartitionScheme", "IOGUIDPartitionScheme", table, under(disk));
  Dictionary slice;
  slice.set("BSD Name", std::string("disk0s3"));
  slice.set("Whole", false);
  slice.set("Partition ID", int64_t{3});
  slice.set("UUID", std::string(kSliceUUID));
  slice.set("Base", int64_t{20480});
  machine->addRegistryEntry("Untitled 3", "IOMedia", slice, under(scheme));
  return {machine, machine->platform().ioRegistry, "disk0", "disk0s3", 3, kSliceUUID, 20480, kDiskUUID};
}

#ifdef VORLIX_MACOS_STANDINS
// The same machine through the adapter of macOS.
RegistryMachine shown() {
  RegistryMachine machine = simulated();
  standin::show(*std::static_pointer_cast<SimulatedMachine>(machine.keeper));
  machine.registry = nativePlatform().ioRegistry;
  return machine;
}

INSTANTIATE_TEST_SUITE_P(MacOS, IORegistryContract, testing::Values(RegistryCase{"Machine", shown}), caseName);
#endif

INSTANTIATE_TEST_SUITE_P(Simulated, IORegistryContract, testing::Values(RegistryCase{"Machine", simulated}), caseName);

}  // namespace
}  // namespace vorlix::test
