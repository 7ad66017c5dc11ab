// SPDX-License-Identifier: Apache-2.0
//
// The unit tests that this program leaves out. A test is here if it expects something that the simulated machine does
// and the macOS adapters or their system do not. --gtest_filter runs such a test all the same.
#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/macos/standin/System.h"

namespace {

struct LeftOut {
  const char* reason;
  std::vector<std::string> tests;
};

const std::vector<LeftOut>& leftOut() {
  static const std::vector<LeftOut> all = {
      {"the adapter does not pass on that a mode is left in which the session was not scheduled, which the test "
       "expects in the journal; MountModes has the rest of these tests",
       {"DeviceManagerMountingTest.ReadWriteMountIsHiddenAndLogged",
        "DeviceManagerMountingTest.ReadOnlyMountPassesNoArguments",
        "DeviceManagerMountingTest.MountOfAnUnknownDeviceRunsNoLoop",
        "DeviceManagerMountingTest.UnmountOfAMountedVolumeReturnsTrue",
        "DeviceManagerMountingTest.UnmountOfAnUnknownDeviceReturnsTheLastOutcomeAtOnce",
        "MountingTest.MountOfAnUnknownNameRunsNothing", "MountingTest.UnmountOfAnUnknownNameReturnsMinusOne"}},
      {"the adapter takes a disk without a description for none, and a disk keeps its session open",
       {"DeviceManagerListingTest.AVolumeWithoutADescriptionIsListedWithTheKnownFields",
        "DiskInfoItemTypeTest.ADiskWithoutADescriptionGivesAnEmptyRecord",
        "DiskInfoItemTypeTest.ADiskStaysUsableAfterItsConnectionIsClosed"}},
      {"the adapter opens a session to look up a volume's kind, which the test does not expect in the journal",
       {"LegacyBootTest.ExistingDestinationsAreKeptSilently",
        "LegacyBootTest.SecondRunFindsEverythingAndCopiesNothing"}},
      {"the framework finds the device in every name with \"://disk\", and none in other names of a driver",
       {"DeviceManagerListingTest.ADriversNameInOtherCaseIsNotRecognized",
        "DeviceManagerListingTest.ADriversNameWithTooFewComponentsIsUnchanged"}},
      {"every mounted volume has a mount path",
       {"DeviceManagerListingTest.AVolumeWithoutAMountPathIsOmittedAndNotQueried"}},
      {"the size of a node is a whole number of blocks",
       {"BootSector.DeviceTooSmallForTheFieldsFails", "BootTypeTest.ADeviceThatEndsAfterTheByteIsClassifiedByIt"}},
      {"after a short transfer the adapter goes on with the rest",
       {"BootSector.ShortFirstWriteIsReported", "BootSector.ShortSecondWriteIsReported",
        "RestoreVBRTest.ShortWriteReturnsMinusSeven", "WriteSector.ShortWriteIsNotRetried"}},
      {"the adapter looks at a node before it opens it, so there is no opening of an unknown one to note",
       {"WriteSector.UnknownDeviceIsOpenedWithBothLocks"}},
      {"the disk stays open for writing, and the kernel takes its slices away",
       {"HybridUpdate.WithoutBootCodePathSectorZeroIsUntouchedAndTheBootSectorIsPatched"}},
      {"Core Foundation makes every number and dictionary that it is asked for",
       {"CallerCheckTest.ARefusalIfTheNumberCannotBeCreated",
        "CallerCheckTest.ARefusalIfTheAttributesCannotBeCreated"}},
      {"128 MB through a pipe take the sanitizer half a minute, and no adapter is in their way",
       {"TaskHelperTest.ReadsWhileTheProgramWritesMoreThanAPipeHolds"}},
      {"on a busy machine, Core Foundation once closed the descriptors of an ended thread's loop only after the test "
       "had counted them; why so late is not known",
       {"TaskWrapperTest.EverythingArrivesOnTheThreadThatStartedTheRun"}},
      {"a requirement is compiled without regard to the process, and is not compared for a process that is not there",
       {"CallerCheckTest.ARefusalIfTheRequirementCannotBeRead", "CallerCheckTest.TheIdentifierIsASigned32BitNumber"}},
  };
  return all;
}

[[maybe_unused]] const bool isFiltered = [] {
  std::string filter = "*-";
  for (const LeftOut& group : leftOut()) {
    for (const std::string& test : group.tests) filter += test + ":";
  }
  vorlix::standin::usualFilter() = filter;
  return true;
}();

std::set<std::string> allTests() {
  std::set<std::string> names;
  const testing::UnitTest& program = *testing::UnitTest::GetInstance();
  for (int i = 0; i < program.total_test_suite_count(); ++i) {
    const testing::TestSuite& suite = *program.GetTestSuite(i);
    for (int j = 0; j < suite.total_test_count(); ++j) {
      names.insert(std::string(suite.name()) + "." + suite.GetTestInfo(j)->name());
    }
  }
  return names;
}

TEST(LeftOutTests, AreThereAndArePrinted) {
  const std::set<std::string> all = allTests();
  for (const LeftOut& group : leftOut()) {
    std::cout << "Left out, because " << group.reason << ":\n";
    for (const std::string& test : group.tests) {
      EXPECT_TRUE(all.contains(test)) << test;
      std::cout << "  " << test << "\n";
    }
  }
}

}  // namespace
