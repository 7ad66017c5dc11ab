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
#include "Json.h"
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

// What a probe looks at, and whether it answers as JSON.
struct ProbeOptions {
  std::string name;
  int process = 0;
  bool json = false;
};

void addJson(Command& command, ProbeOptions& options) {
  command.addFlag("--json", options.json, "Print JSON");
}

const char* bootTypeOf(const std::string& disk) {
  requireMBR(disk);
  switch (QDDiskHelper::init()->bootTypeForDisk(disk)) {
    case kLegacyStart:
      return "legacy";
    case kEFIStart:
      return "EFI";
    default:
      throw Failure(disk, "cannot be opened for reading");
  }
}

void showBootType(const ProbeOptions& options) {
  const char* const type = bootTypeOf(options.name);
  if (options.json) {
    Json::object({{"version", kJsonVersion}, {"disk", options.name}, {"bootType", type}}).print();
  } else {
    std::printf("%s\n", type);
  }
}

bool showBootable(const ProbeOptions& options) {
  VolumeView view(options.name);
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
  if (options.json) {
    Json::object({{"version", kJsonVersion}, {"volume", options.name}, {"bootable", bootable}}).print();
  } else {
    std::printf("%s\n",
                bootable ? "holds an operating system that can be started" : "holds nothing that can be started");
  }
  return bootable;
}

void printIntegrityJson(bool enabled, bool hasTool) {
  Json::object({{"version", kJsonVersion}, {"enabled", enabled}, {"hasStatusTool", hasTool}}).print();
}

void showSystemIntegrity(bool json) {
  const std::string tool = platform().systemPaths->statusTool();
  if (!platform().files->kindOf(tool)) {
    if (json) {
      printIntegrityJson(false, false);
    } else {
      std::printf("disabled: this system has no %s\n", tool.c_str());
    }
    return;
  }
  try {
    const bool enabled = QDSUtilities::isSIPEnabled();
    if (json) {
      printIntegrityJson(enabled, true);
    } else {
      std::printf("%s\n", enabled ? "enabled" : "disabled");
    }
  } catch (const std::system_error& failure) {
    throw Failure(tool, failure.code().message(), "the status is unknown");
  }
}

void printCaller(const ProbeOptions& options, bool isSigned, const std::string& text) {
  if (options.json) {
    Json::object({{"version", kJsonVersion},
                  {"process", options.process},
                  {"signed", isSigned},
                  {"reason", knownText(isSigned ? "" : text)}})
        .print();
  } else {
    std::printf("%d: %s\n", options.process, printable(text).c_str());
  }
}

bool showCaller(const ProbeOptions& options) {
  const int process = options.process;
  const LibraryLog log;
  if (QDSUtilities::isCorrectlySignedClientWithPID(process)) {
    printCaller(options, true, "signed by the team");
    return true;
  }
  // With any other log text, the library could not check the process.
  if (log.text() != "Request from invalid client. Refusing") {
    throw Failure(std::to_string(process), log.text(),
                  "no such process, it has ended, or its executable may not be read");
  }
  printCaller(options, false, log.text());
  return false;
}

}  // namespace

void addProbeCommands(Command& top, int& status) {
  const auto disk = std::make_shared<ProbeOptions>();
  Command bootType = top.addCommand("boot-type", "Report from the MBR how a disk starts");
  bootType.addOption("DISK", disk->name, "Whole disk or disk-image file").completes(ValueKind::disk).required();
  addJson(bootType, *disk);
  bootType.setFooter(
      "Prints \"EFI\" if the second slot of the MBR starts at head 0, as in a plain protective MBR, and \"legacy\"\n"
      "otherwise. Nothing is written.\n"
      "Exit status: 0 success, 2 error, such as a disk without an MBR.");
  bootType.setExamples({"vorlix boot-type /dev/sda"});
  bootType.setAction([disk, &status] {
    showBootType(*disk);
    status = kDone;
  });

  const auto volume = std::make_shared<ProbeOptions>();
  Command bootable = top.addCommand("bootable", "Report whether a volume holds an operating system");
  bootable.addOption("VOLUME", volume->name, "Folder where the volume is mounted, or its device")
      .completes(ValueKind::volume)
      .required();
  addJson(bootable, *volume);
  bootable.setFooter(
      "A volume counts if it holds System/Library, com.apple.recovery.boot/boot.efi, Windows/System32 or ntldr.\n"
      "A FAT or NTFS volume need not be mounted (Linux). Nothing is written.\n"
      "Exit status: 0 yes, 1 no, 2 error.");
  bootable.setExamples({"vorlix bootable /mnt/windows", "vorlix bootable mac.imgs3"});
  bootable.setAction([volume, &status] { status = showBootable(*volume) ? kDone : kChangeNeeded; });

  Command sip = top.addCommand("sip", "Report whether System Integrity Protection is on");
  const auto sipOptions = std::make_shared<ProbeOptions>();
  addJson(sip, *sipOptions);
  sip.setFooter(
      "Runs /usr/bin/csrutil. Output without the word \"disabled\" counts as enabled; a system without that program\n"
      "counts as disabled.\n"
      "Exit status: 0 success, 2 error.");
  sip.setExamples({"vorlix sip"});
  sip.setAction([sipOptions, &status] {
    showSystemIntegrity(sipOptions->json);
    status = kDone;
  });

  const auto process = std::make_shared<ProbeOptions>();
  Command caller = top.addCommand("check-caller", "Check whether a process is signed by the team");
  caller.addOption("PID", process->process, "Process identifier")
      .completes(ValueKind::text)
      .required()
      .within(1, std::numeric_limits<int>::max());
  addJson(caller, *process);
  caller.setFooter(
      "docs/caller-check.md describes what is checked and how to sign a program.\n"
      "Exit status: 0 signed by the team, 1 not, 2 the process could not be checked.\n"
      "The library's log is /tmp/quandrel.log.");
  caller.setExamples({"vorlix check-caller 4711"});
  caller.setAction([process, &status] { status = showCaller(*process) ? kDone : kChangeNeeded; });
}

}  // namespace vorlix::tool
