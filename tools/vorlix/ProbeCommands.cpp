// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDDiskHelper.h>
#include <Vorlix/QDSUtilities.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemPaths.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>
#include <system_error>

#include "Arbitration.h"
#include "Commands.h"
#include "DiskTables.h"
#include "Failure.h"
#include "LibraryLog.h"
#include "Text.h"
#include "VolumeView.h"
#include "Volumes.h"

namespace vorlix::tool {
namespace {

constexpr int kLegacyStart = 0;
constexpr int kEFIStart = 1;

// The library reads the second slot of the MBR without checking that sector 0 holds one. Without this check, the result
// for a disk without an MBR would come from unrelated bytes.
void requireMBR(const std::string& disk) {
  const DiskTables tables = readTables(disk);
  if (const DeviceNames names = namesOf(disk); names.isSlice()) {
    throw Failure(disk, "a slice; the whole disk is " + names.whole);
  }
  if (const auto reason = whyNoMBR(tables)) throw Failure(disk, *reason);
}

void showBootType(const std::string& disk) {
  requireMBR(disk);
  switch (QDDiskHelper::init()->bootTypeForDisk(disk)) {
    case kLegacyStart:
      std::printf("legacy\n");
      return;
    case kEFIStart:
      std::printf("EFI\n");
      return;
    default:
      throw Failure(disk, "cannot be opened for reading");
  }
}

bool showBootable(const std::string& volume) {
  VolumeView view(volume);
  const std::string& folder = view.folder();
  if (access(folder.c_str(), X_OK) != 0) throw Failure::ofErrno(folder, errno);
  const auto record = QDVolume::init();
  record->setFilePath(folder);
  record->setFileSystemType(view.fileSystem());
  view.needName({"System", "Library"});
  view.needName({"com.apple.recovery.boot", "boot.efi"});
  view.needName({"Windows", "System32"});
  view.needName({"ntldr"});
  const bool bootable = QDDiskHelper::init()->isBootable(record);
  std::printf("%s\n", bootable ? "holds an operating system that can be started" : "holds nothing that can be started");
  return bootable;
}

void showSystemIntegrity() {
  const std::string tool = platform().systemPaths->statusTool();
  if (!platform().files->kindOf(tool)) {
    std::printf("disabled: this system has no %s\n", tool.c_str());
    return;
  }
  try {
    std::printf("%s\n", QDSUtilities::isSIPEnabled() ? "enabled" : "disabled");
  } catch (const std::system_error& failure) {
    throw Failure(tool, failure.code().message(), "the status is unknown");
  }
}

bool showCaller(int process) {
  const LibraryLog log;
  if (QDSUtilities::isCorrectlySignedClientWithPID(process)) {
    std::printf("%d: signed by the team\n", process);
    return true;
  }
  // With any other log text, the library could not check the process.
  if (log.text() != "Request from invalid client. Refusing") {
    throw Failure(std::to_string(process), log.text(),
                  "no such process, it has ended, or its executable may not be read");
  }
  std::printf("%d: %s\n", process, printable(log.text()).c_str());
  return false;
}

}  // namespace

void addProbeCommands(Command& top, int& status) {
  const auto disk = std::make_shared<std::string>();
  Command bootType = top.addCommand("boot-type", "Report from the MBR how a disk starts");
  bootType.addOption("DISK", *disk, "Whole disk or disk-image file").required();
  bootType.setFooter(
      "Prints \"EFI\" if the second slot of the MBR starts at head 0, as in a plain protective MBR, and \"legacy\"\n"
      "otherwise. Nothing is written.\n"
      "Exit status: 0 success, 2 error, such as a disk without an MBR.");
  bootType.setAction([disk, &status] {
    showBootType(*disk);
    status = kDone;
  });

  const auto volume = std::make_shared<std::string>();
  Command bootable = top.addCommand("bootable", "Report whether a volume holds an operating system");
  bootable.addOption("VOLUME", *volume, "Folder where the volume is mounted, or its device").required();
  bootable.setFooter(
      "A volume counts if it holds System/Library, com.apple.recovery.boot/boot.efi, Windows/System32 or ntldr.\n"
      "A FAT or NTFS volume need not be mounted (Linux). Nothing is written.\n"
      "Exit status: 0 yes, 1 no, 2 error.");
  bootable.setAction([volume, &status] { status = showBootable(*volume) ? kDone : kChangeNeeded; });

  Command sip = top.addCommand("sip", "Report whether System Integrity Protection is on");
  sip.setFooter(
      "Runs /usr/bin/csrutil. Output without the word \"disabled\" counts as enabled; a system without that program\n"
      "counts as disabled.\n"
      "Exit status: 0 success, 2 error.");
  sip.setAction([&status] {
    showSystemIntegrity();
    status = kDone;
  });

  const auto process = std::make_shared<int>();
  Command caller = top.addCommand("check-caller", "Check whether a process is signed by the team");
  caller.addOption("PID", *process, "Process identifier").required().within(1, std::numeric_limits<int>::max());
  caller.setFooter(
      "docs/caller-check.md describes what is checked and how to sign a program.\n"
      "Exit status: 0 signed by the team, 1 not, 2 the process could not be checked.\n"
      "The library's log is /tmp/quandrel.log.");
  caller.setAction([process, &status] { status = showCaller(*process) ? kDone : kChangeNeeded; });
}

}  // namespace vorlix::tool
