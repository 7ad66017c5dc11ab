// SPDX-License-Identifier: Apache-2.0
//
// The state of System Integrity Protection as a status tool reports it. The tool is simulated, except where pipes
// matter.
#include <Vorlix/QDSUtilities.h>
#include <Vorlix/platform/SystemPaths.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <system_error>

#include "tests/unit/support/DiskFixture.h"

namespace vorlix::test {
namespace {

class SIPTest : public FlatTest {
 protected:
  SIPTest() {
    machine.addFile(tool);
    machine.setStatusTool(tool);
  }

  bool enabledAfter(const std::string& output) {
    SimulatedRun run;
    if (!output.empty()) run.pieces = {{SimulatedRun::Stream::output, output}};
    machine.addProgram(tool, run);
    return QDSUtilities::isSIPEnabled();
  }

  const std::string tool = "/tools/csrutil";
};

TEST_F(SIPTest, OnlyTheSystemsToolIsRun) {
  EXPECT_EQ(nativePlatform().systemPaths->statusTool(), "/usr/bin/csrutil");
  SimulatedMachine usual;
  const ScopedPlatform scope(usual.platform());
  usual.addFile("/usr/sbin/csrutil");
  usual.addProgram("/usr/bin/csrutil", SimulatedRun{});
  EXPECT_FALSE(QDSUtilities::isSIPEnabled());
  EXPECT_EQ(usual.journal(), Lines{});
  usual.addFile("/usr/bin/csrutil");
  static_cast<void>(QDSUtilities::isSIPEnabled());
  EXPECT_EQ(usual.journal(), Lines{"launch /usr/bin/csrutil status"});
}

TEST_F(SIPTest, TheToolIsRunOnceWithStatusAsItsArgument) {
  enabledAfter("System Integrity Protection status: enabled.\n");
  EXPECT_EQ(machine.journal(), Lines{"launch " + tool + " status"});
}

TEST_F(SIPTest, EnabledReturnsTrue) {
  EXPECT_TRUE(enabledAfter("System Integrity Protection status: enabled.\n"));
}

TEST_F(SIPTest, DisabledWithAFullStopReturnsFalse) {
  EXPECT_FALSE(enabledAfter("System Integrity Protection status: disabled.\n"));
}

TEST_F(SIPTest, DisabledWithoutAFullStopReturnsFalse) {
  EXPECT_FALSE(enabledAfter("System Integrity Protection status: disabled"));
}

TEST_F(SIPTest, DisabledAnywhereInTheTextReturnsFalse) {
  EXPECT_FALSE(enabledAfter("warning: beta\nxSystem Integrity Protection status: disabledx (Custom)\nmore\n"));
}

TEST_F(SIPTest, CaseMatters) {
  EXPECT_TRUE(enabledAfter("System Integrity Protection status: Disabled.\n"));
  EXPECT_TRUE(enabledAfter("system integrity protection status: disabled.\n"));
}

TEST_F(SIPTest, UnknownCustomOrAnErrorReturnsTrue) {
  EXPECT_TRUE(enabledAfter("System Integrity Protection status: unknown (Custom Configuration).\n"));
  EXPECT_TRUE(enabledAfter("csrutil: failed\n"));
  EXPECT_TRUE(enabledAfter(""));
}

TEST_F(SIPTest, TheTextIsAssembledFromItsPieces) {
  SimulatedRun run;
  run.pieces = {{SimulatedRun::Stream::output, "System Integrity Prot"},
                {SimulatedRun::Stream::output, "ection status: dis"},
                {SimulatedRun::Stream::output, "abled."}};
  machine.addProgram(tool, run);
  EXPECT_FALSE(QDSUtilities::isSIPEnabled());
}

TEST_F(SIPTest, StandardErrorIsIgnored) {
  SimulatedRun run;
  run.pieces = {{SimulatedRun::Stream::error, "System Integrity Protection status: disabled."},
                {SimulatedRun::Stream::output, "enabled"}};
  machine.addProgram(tool, run);
  EXPECT_TRUE(QDSUtilities::isSIPEnabled());
}

TEST_F(SIPTest, TheExitStatusIsIgnored) {
  SimulatedRun run;
  run.pieces = {{SimulatedRun::Stream::output, "System Integrity Protection status: enabled."}};
  run.status = 1;
  machine.addProgram(tool, run);
  EXPECT_TRUE(QDSUtilities::isSIPEnabled());
}

TEST_F(SIPTest, OutputThatIsNotUTF8ReturnsFalse) {
  EXPECT_FALSE(enabledAfter("System Integrity Protection status: enabled.\xFF"));
}

TEST_F(SIPTest, ACharacterSplitAcrossPiecesIsValid) {
  SimulatedRun run;
  run.pieces = {{SimulatedRun::Stream::output, "\xC3"}, {SimulatedRun::Stream::output, "\xA4"}};
  machine.addProgram(tool, run);
  EXPECT_TRUE(QDSUtilities::isSIPEnabled());
}

TEST_F(SIPTest, WithoutTheToolTheResultIsFalseAndNothingRuns) {
  machine.addProgram(tool, SimulatedRun{});
  machine.removeItem(tool);
  EXPECT_FALSE(QDSUtilities::isSIPEnabled());
  EXPECT_EQ(machine.journal(), Lines());
}

TEST_F(SIPTest, AFolderInPlaceOfTheToolCountsAsExisting) {
  machine.addFolder(tool);
  EXPECT_TRUE(enabledAfter("enabled"));
  EXPECT_EQ(machine.journal(), Lines{"launch " + tool + " status"});
}

TEST_F(SIPTest, AToolThatCannotBeLaunchedThrows) {
  EXPECT_THROW(QDSUtilities::isSIPEnabled(), std::system_error);
}

TEST_F(SIPTest, NothingIsLogged) {
  enabledAfter("System Integrity Protection status: disabled.\n");
  EXPECT_EQ(log(), "");
}

/// A shell script as the tool, run by this system's own adapter.
class SIPProcessTest : public FlatTest {
 protected:
  SIPProcessTest()
      : scope_([this] {
          machine.setStatusTool(tool);
          Platform ports = machine.platform();
          ports.childProcess = nativePlatform().childProcess;
          return ports;
        }()) {}

  bool enabledAfterScript(const std::string& script) {
    const std::string text = "#!/bin/sh\n" + script + "\n";
    makeFile("csrutil", ByteVector(text.begin(), text.end()));
    chmod(tool.c_str(), 0700);
    return QDSUtilities::isSIPEnabled();
  }

  const std::string tool = folder / "csrutil";

 private:
  ScopedPlatform scope_;
};

TEST_F(SIPProcessTest, TheOnlyArgumentIsStatus) {
  EXPECT_FALSE(
      enabledAfterScript("[ $# = 1 ] && [ \"$1\" = status ] && "
                         "echo 'System Integrity Protection status: disabled.'"));
}

TEST_F(SIPProcessTest, OutputIsReadToItsEnd) {
  // 1 MiB goes through the pipe before the line that decides.
  EXPECT_FALSE(
      enabledAfterScript("head -c 1048576 /dev/zero | tr '\\0' x; "
                         "echo 'System Integrity Protection status: disabled.'"));
}

TEST_F(SIPProcessTest, AFullStandardErrorDoesNotBlockTheTool) {
  // 1 MiB is more than a pipe holds. The tool must continue to its report without SIGPIPE and without blocking.
  EXPECT_FALSE(
      enabledAfterScript("head -c 1048576 /dev/zero >&2; "
                         "echo 'System Integrity Protection status: disabled.'"));
}

TEST_F(SIPProcessTest, AToolWithoutOutputReturnsTrue) {
  EXPECT_TRUE(enabledAfterScript("exit 1"));
}

TEST_F(SIPProcessTest, NoDescriptorStaysOpen) {
  enabledAfterScript("echo enabled");
  const int before = openDescriptors();
  enabledAfterScript("echo enabled");
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SIPProcessTest, AFileThatIsNotExecutableThrows) {
  makeFile("csrutil", {'x'});
  chmod(tool.c_str(), 0600);
  EXPECT_THROW(QDSUtilities::isSIPEnabled(), std::system_error);
}

}  // namespace
}  // namespace vorlix::test
