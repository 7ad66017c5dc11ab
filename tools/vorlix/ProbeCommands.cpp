// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDDiskHelper.h>
#include <Vorlix/QDSUtilities.h>
#include <Vorlix/QDVolume.h>
#include <unistd.h>
#include "library/QDSUtilities/StatusTool.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
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
#include "Volumes.h"

namespace vorlix::tool {
namespace {

constexpr int kLegacyStart = 0;
constexpr int kEFIStart = 1;

// The answer comes from the second slot of an MBR; where there is none, it would be made of whatever stands there.
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
  const std::string folder = folderOfVolume(volume);
  if (access(folder.c_str(), X_OK) != 0) throw Failure::ofErrno(folder, errno);
  const auto record = QDVolume::init();
  record->setFilePath(folder);
  {
    const QuietLibrary quiet;
    record->setFileSystemType(QDDeviceManager::sharedDeviceManager()->fileSystemTypeAtPath(folder));
  }
  const bool bootable = QDDiskHelper::init()->isBootable(record);
  std::printf("%s\n", bootable ? "holds an operating system that can be started" : "holds nothing that can be started");
  return bootable;
}

void showSystemIntegrity() {
  std::error_code error;
  if (!std::filesystem::exists(kStatusToolPath, error)) {
    std::printf("disabled: this system has no %s\n", kStatusToolPath);
    return;
  }
  try {
    std::printf("%s\n", QDSUtilities::isSIPEnabled() ? "enabled" : "disabled");
  } catch (const std::system_error& failure) {
    throw Failure(kStatusToolPath, failure.code().message(), "the state is not known");
  }
}

bool showCaller(int process) {
  const LibraryLog log;
  if (QDSUtilities::isCorrectlySignedClientWithPID(process)) {
    std::printf("%d: signed by the team\n", process);
    return true;
  }
  // Every other refusal is of a process that could not be checked.
  if (log.text() != "Request from invalid client. Refusing") {
    throw Failure(std::to_string(process), log.text(),
                  "no such process, it has ended, or its executable may not be read");
  }
  std::printf("%d: %s\n", process, printable(log.text()).c_str());
  return false;
}

}  // namespace

void addProbeCommands(CLI::App& app, int& status) {
  const auto disk = std::make_shared<std::string>();
  CLI::App* const bootType = app.add_subcommand("boot-type", "Tell from its MBR which way a disk starts");
  bootType->add_option("DISK", *disk, "Whole disk or disk-image file")->required();
  bootType->footer(
      "Prints \"EFI\" if the second slot of its MBR starts at head 0, as that of a plain protective MBR does, and\n"
      "\"legacy\" otherwise. Nothing is written.\n"
      "Exit status: 0 told, 2 error, such as a disk without an MBR.");
  bootType->callback([disk, &status] {
    showBootType(*disk);
    status = kDone;
  });

  const auto volume = std::make_shared<std::string>();
  CLI::App* const bootable = app.add_subcommand("bootable", "Tell whether a volume holds an operating system");
  bootable->add_option("VOLUME", *volume, "Folder where the volume is mounted, or its device")->required();
  bootable->footer(
      "It does if it holds System/Library, com.apple.recovery.boot/boot.efi, Windows/System32 or ntldr.\n"
      "Exit status: 0 yes, 1 no, 2 error.");
  bootable->callback([volume, &status] { status = showBootable(*volume) ? kDone : kChangeNeeded; });

  CLI::App* const sip = app.add_subcommand("sip", "Tell whether System Integrity Protection is on");
  sip->footer(
      "Asks /usr/bin/csrutil. What does not say \"disabled\" counts as enabled; a system without it has no "
      "protection.\n"
      "Exit status: 0 told, 2 error.");
  sip->callback([&status] {
    showSystemIntegrity();
    status = kDone;
  });

  const auto process = std::make_shared<int>();
  CLI::App* const caller = app.add_subcommand("check-caller", "Tell whether a process is signed by the team");
  caller->add_option("PID", *process, "Process identifier")
      ->required()
      ->check(CLI::Range(1, std::numeric_limits<int>::max()));
  caller->footer(
      "docs/caller-check.md tells what is checked and how a program is signed.\n"
      "Exit status: 0 signed by the team, 1 not, 2 the process could not be checked.\n"
      "The library's log is /tmp/quandrel.log.");
  caller->callback([process, &status] { status = showCaller(*process) ? kDone : kChangeNeeded; });
}

}  // namespace vorlix::tool
