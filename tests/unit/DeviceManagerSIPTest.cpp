// SPDX-License-Identifier: Apache-2.0
//
// Whether System Integrity Protection is enabled, as the device manager determines it.
#include <system_error>

#include "tests/unit/support/DeviceManagerFixture.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kStatusTool = "/usr/bin/csrutil";  // spelled out because hosts rely on it
constexpr const char* kEnabled = "System Integrity Protection status: enabled.\n";
constexpr const char* kDisabled = "System Integrity Protection status: disabled.\n";
constexpr const char* kCustom =
    "System Integrity Protection status: enabled (Custom Configuration).\n\n"
    "Configuration:\n\tApple Internal: disabled\n\tKext Signing: enabled\n\tFilesystem Protections: enabled\n"
    "\tDebugging Restrictions: enabled\n\tDTrace Restrictions: enabled\n\tNVRAM Protections: disabled\n";

/// Sees only the given files.
class ChosenFiles : public FileManager {
 public:
  explicit ChosenFiles(std::set<std::string> files) : files_(std::move(files)) {}
  bool fileExistsAtPath(const std::string& path) override { return files_.count(path) > 0; }
  bool fileExistsAtPath(const std::string& path, bool& isDirectory) override {
    if (files_.count(path) == 0) return false;
    isDirectory = false;
    return true;
  }
  std::optional<Lines> contentsOfDirectoryAtPath(const std::string&) override { return std::nullopt; }

 private:
  std::set<std::string> files_;
};

class DeviceManagerSIPTest : public DeviceManagerTest {
 protected:
  void SetUp() override {
    DeviceManagerTest::SetUp();
    manager->setFileManager(std::make_shared<ChosenFiles>(std::set<std::string>{kStatusTool}));
  }

  bool enabledAfter(const SimulatedRun& run) {
    machine.addProgram(kStatusTool, run);
    const bool result = manager->isSIPEnabled();
    EXPECT_EQ(manager->checkForSIP(), result);
    return result;
  }
};

// --------------------------------------------------------------------------------------------------- the tool's output

TEST_F(DeviceManagerSIPTest, TheToolsOutputDecides) {
  const struct {
    const char* output;
    bool enabled;
  } cases[] = {
      {kEnabled, true},
      {kDisabled, false},
      {kCustom, false},
      {"System Integrity Protection status: disabled", false},
      {"x System Integrity Protection status: disabledx", false},
      {"NVRAM Protections: disabled", false},
      {"NVRAM Protections: enabled", true},
      {"System Integrity Protection status: enabled.\nNVRAM Protections: disabled\n", false},
      {"System Integrity Protection status: unknown (Custom Configuration).\n", true},
      {"system integrity protection status: disabled.", true},
      {"System Integrity Protection status: Disabled.", true},
      {"nvram protections: disabled", true},
      {"Kext Signing: disabled", true},
      {"\n", true},
      {"csrutil: failed", true},
      {"", false},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(manager->isSIPEnabledFromStandardOutput(std::string(one.output)), one.enabled) << one.output;
    EXPECT_EQ(enabledAfter(printing(one.output)), one.enabled) << one.output;
  }
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerSIPTest, MissingOutputMeansNotEnabled) {
  EXPECT_FALSE(manager->isSIPEnabledFromStandardOutput(std::nullopt));
  EXPECT_FALSE(enabledAfter(printing("System Integrity Protection status: enabled.\xFF")));
}

TEST_F(DeviceManagerSIPTest, TheToolIsRunWithStatusAsItsArgument) {
  machine.addProgram(kStatusTool, printing(kEnabled));
  EXPECT_TRUE(manager->isSIPEnabled());
  EXPECT_THAT(machine.journal(), ElementsAre("launch /usr/bin/csrutil status"));
  EXPECT_TRUE(manager->checkForSIP());
  EXPECT_EQ(machine.journal().size(), 2U);
}

TEST_F(DeviceManagerSIPTest, WithoutTheToolItIsNotEnabledAndNothingRuns) {
  machine.addProgram(kStatusTool, printing(kEnabled));
  manager->setFileManager(std::make_shared<ChosenFiles>(std::set<std::string>{"/usr/sbin/csrutil"}));
  EXPECT_FALSE(manager->isSIPEnabled());
  EXPECT_FALSE(manager->checkForSIP());
  manager->setFileManager(nullptr);
  EXPECT_FALSE(manager->isSIPEnabled());
  EXPECT_FALSE(QDDeviceManager::init()->isSIPEnabled());  // has no file manager
  EXPECT_EQ(machine.journal(), Lines());
}

TEST_F(DeviceManagerSIPTest, StandardErrorAndTheExitStatusAreIgnored) {
  SimulatedRun run;
  run.pieces = {{SimulatedRun::Stream::error, kDisabled}, {SimulatedRun::Stream::output, kEnabled}};
  run.status = 1;
  EXPECT_TRUE(enabledAfter(run));
  run.pieces = {{SimulatedRun::Stream::error, kEnabled}};
  EXPECT_FALSE(enabledAfter(run));
}

TEST_F(DeviceManagerSIPTest, AToolThatCannotBeLaunchedThrows) {
  EXPECT_THROW(manager->isSIPEnabled(), std::system_error);
  EXPECT_THROW(manager->checkForSIP(), std::system_error);
}

TEST_F(DeviceManagerSIPTest, ShowSIPInfoDoesNothing) {
  OutputCapture output(STDOUT_FILENO);
  manager->showSIPInfo();
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(machine.journal(), Lines());
  EXPECT_THAT(lines(), IsEmpty());
}

// -------------------------------------------------------------------------------------------------- a program's output

TEST_F(DeviceManagerSIPTest, AProgramsStandardOutputIsReturnedCompleteAndUnchanged) {
  SimulatedRun run;
  run.pieces = {{SimulatedRun::Stream::output, "one\r\n"},
                {SimulatedRun::Stream::error, "no"},
                {SimulatedRun::Stream::output, "\n two\xC3"},
                {SimulatedRun::Stream::output, "\xA4\n"}};
  run.status = 7;
  machine.addProgram("/tool", run);
  EXPECT_EQ(manager->standardOutputForTask({"/tool", {"a", "b c"}}), "one\r\n\n two\xC3\xA4\n");
  EXPECT_THAT(machine.journal(), ElementsAre("launch /tool a b c"));
  EXPECT_EQ(log(), "");
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerSIPTest, AProgramThatWritesNothingHasEmptyOutput) {
  machine.addProgram("/tool", SimulatedRun{});
  EXPECT_EQ(manager->standardOutputForTask({"/tool", {}}), "");
}

TEST_F(DeviceManagerSIPTest, OutputThatIsNotUTF8IsAbsent) {
  machine.addProgram("/tool", printing("good \xFF"));
  EXPECT_EQ(manager->standardOutputForTask({"/tool", {}}), std::nullopt);
}

TEST_F(DeviceManagerSIPTest, AProgramThatCannotBeLaunchedThrows) {
  EXPECT_THROW(manager->standardOutputForTask({"/nowhere", {}}), std::system_error);
}

// ------------------------------------------------------------------------------------------- the running system's disk

class DeviceManagerStartupSystemTest : public DeviceManagerTest {
 protected:
  DeviceManagerStartupSystemTest() {
    for (const char* device : {"disk0s2", "disk1s1", "disk2s1"}) addDevice(device);
    SimulatedVolume root;
    root.kind = "apfs";
    root.name = "Macintosh HD";
    root.mountPath = "/";
    root.mounted = true;
    machine.setVolume("disk1s1", root);
    setPath("disk1s1", "IOService:/a/b");
    machine.addFile(tool);
    machine.addProgram(tool, printing(kEnabled));
  }

  void setPath(const std::string& device, const char* path) {
    machine.setDescription(device, "DADevicePath", textValue(path));
  }

  const std::string tool = kStatusTool;
};

TEST_F(DeviceManagerStartupSystemTest, ADeviceOfTheSamePhysicalDeviceIsOnTheStartupDisk) {
  setPath("disk0s2", "IOService:/a/b");
  setPath("disk2s1", "IOService:/a/c");
  EXPECT_TRUE(manager->isOnStartupDisk("/dev/disk0s2"));
  EXPECT_TRUE(manager->isOnStartupDisk("disk0s2"));
  EXPECT_TRUE(manager->isOnStartupDisk("/dev/disk1s1"));
  EXPECT_FALSE(manager->isOnStartupDisk("/dev/disk2s1"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(DeviceManagerStartupSystemTest, PhysicalDevicesAreComparedWithTheirCase) {
  setPath("disk0s2", "IOService:/A/B");
  EXPECT_FALSE(manager->isOnStartupDisk("/dev/disk0s2"));
}

TEST_F(DeviceManagerStartupSystemTest, ADeviceWithoutAPhysicalDeviceIsNotOnTheStartupDisk) {
  EXPECT_FALSE(manager->isOnStartupDisk("/dev/disk0s2"));
  EXPECT_FALSE(manager->isOnStartupDisk("/dev/disk9s1"));
  EXPECT_FALSE(manager->isOnStartupDisk(""));
  machine.hideDescription("disk0s2");
  EXPECT_FALSE(manager->isOnStartupDisk("/dev/disk0s2"));
}

TEST_F(DeviceManagerStartupSystemTest, AStartupDiskWithoutAPhysicalDeviceMatchesNoDevice) {
  setPath("disk0s2", "IOService:/a/b");
  machine.removeDescription("disk1s1", "DADevicePath");
  EXPECT_FALSE(manager->isOnStartupDisk("/dev/disk0s2"));
  EXPECT_FALSE(manager->isOnStartupDisk("/dev/disk1s1"));
}

TEST_F(DeviceManagerStartupSystemTest, TheLookUpSetsTheUnmountStatus) {
  static_cast<void>(manager->isOnStartupDisk("/dev/disk0s2"));
  EXPECT_EQ(manager->unmountStatus(), -1);
}

TEST_F(DeviceManagerStartupSystemTest, TheProtectionAppliesToDevicesOfTheStartupDisk) {
  setPath("disk0s2", "IOService:/a/b");
  setPath("disk2s1", "IOService:/a/c");
  EXPECT_TRUE(manager->checkForSIPForDevice("/dev/disk0s2"));
  EXPECT_FALSE(manager->checkForSIPForDevice("/dev/disk2s1"));
  EXPECT_FALSE(manager->checkForSIPForDevice("/dev/disk9s1"));
}

TEST_F(DeviceManagerStartupSystemTest, ADisabledProtectionAppliesToNoDevice) {
  setPath("disk0s2", "IOService:/a/b");
  machine.addProgram(tool, printing(kDisabled));
  EXPECT_FALSE(manager->checkForSIPForDevice("/dev/disk0s2"));
  machine.removeItem(tool);
  EXPECT_FALSE(manager->checkForSIPForDevice("/dev/disk0s2"));
}

TEST_F(DeviceManagerStartupSystemTest, ForADeviceTheUtilitiesDecide) {
  setPath("disk0s2", "IOService:/a/b");
  manager->setFileManager(nullptr);             // this instance sees no tool
  machine.addProgram(tool, printing(kCustom));  // which this instance would read as disabled
  EXPECT_TRUE(manager->checkForSIPForDevice("/dev/disk0s2"));
}

}  // namespace
}  // namespace vorlix::test
