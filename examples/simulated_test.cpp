// SPDX-License-Identifier: Apache-2.0
//
// A host's own test: its code runs unchanged on a simulated machine, where disks are bytes in memory and calls can be
// made to fail. It needs no rights, no image and no test framework.
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>

#include <cstdio>
#include <string>

// The host's code: unmounts every volume with Windows, so that its disk can be written to.
static std::string unmountWindows(QDDeviceManager& manager) {
  std::string report;
  for (const auto& volume : manager.attachedDisksShowingWindowsOnly(true)) {
    const std::string device = volume->device().value_or("");
    report += manager.unmountDiskAtDevice(device) ? "unmounted " : "in use: ";
    report += volume->diskName().value_or("?") + "\n";
  }
  return report;
}

// A disk with two mounted NTFS volumes, one of which has Windows.
static void fill(vorlix::SimulatedMachine& machine) {
  machine.addDisk("disk0", 1 << 20, 512);
  machine.addSlice("disk0", 3, 40, 100);
  machine.addSlice("disk0", 4, 140, 100);
  for (const auto& [device, name] : {std::pair("disk0s3", "BOOTCAMP"), std::pair("disk0s4", "Data")}) {
    const std::string path = std::string("/Volumes/") + name;
    machine.addFolder(path);
    machine.setVolume(device, {"ntfs", name, std::nullopt, path, true});
    machine.addMountedVolume({name, path, std::string("/dev/") + device, 51200, 0});
  }
  machine.addFolder("/Volumes/BOOTCAMP/Windows/System32");
}

static int failures = 0;

static void check(bool isRight, const char* what) {
  if (isRight) return;
  std::printf("failed: %s\n", what);
  ++failures;
}

static void testOnlyTheVolumeWithWindowsIsUnmounted() {
  vorlix::SimulatedMachine machine;
  fill(machine);
  const vorlix::ScopedPlatform scope(machine.platform());
  check(unmountWindows(*QDDeviceManager::init()) == "unmounted BOOTCAMP\n", "the report names the volume");
  check(!machine.isMounted("disk0s3"), "the volume with Windows is not mounted any more");
  check(machine.isMounted("disk0s4"), "the other volume is still mounted");
}

static void testARefusalIsReportedAndNothingIsWritten() {
  vorlix::SimulatedMachine machine;
  fill(machine);
  machine.refuseUnmount("disk0s3", vorlix::kDissentBusy);
  const vorlix::ScopedPlatform scope(machine.platform());
  check(unmountWindows(*QDDeviceManager::init()) == "in use: BOOTCAMP\n", "the report says that it is in use");
  check(machine.isMounted("disk0s3"), "the volume is still mounted");
  check(machine.writes().empty(), "no disk was written to");
  check(machine.openCount() == 0, "no device stayed open");
}

int main() {
  testOnlyTheVolumeWithWindowsIsUnmounted();
  testARefusalIsReportedAndNothingIsWritten();
  if (failures == 0) std::puts("all tests passed");
  return failures == 0 ? 0 : 1;
}
