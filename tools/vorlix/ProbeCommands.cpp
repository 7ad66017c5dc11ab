// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDDiskHelper.h>
#include <Vorlix/QDSUtilities.h>
#include <Vorlix/QDVolume.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "Arbitration.h"
#include "Commands.h"
#include "Failure.h"
#include "LibraryLog.h"

namespace vorlix::tool {
namespace {

constexpr int kLegacyStart = 0;
constexpr int kEFIStart = 1;

void showBootType(const std::string& disk) {
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
  std::error_code error;
  std::string folder = volume;
  if (!std::filesystem::is_directory(volume, error)) {
    const std::optional<std::string> path = mountPointOf(volume);
    if (!path) throw Failure(volume, "not mounted");
    folder = *path;
  }
  const auto record = QDVolume::init();
  record->setFilePath(folder);
  const bool bootable = QDDiskHelper::init()->isBootable(record);
  std::printf("%s\n", bootable ? "holds an operating system that can be started" : "holds nothing that can be started");
  return bootable;
}

bool showCaller(int process) {
  const LibraryLog log;
  const bool valid = QDSUtilities::isCorrectlySignedClientWithPID(process);
  std::printf("%d: %s\n", process, valid ? "signed by the team" : log.text().c_str());
  return valid;
}

}  // namespace

void addProbeCommands(CLI::App& app, int& status) {
  const auto disk = std::make_shared<std::string>();
  CLI::App* const bootType = app.add_subcommand("boot-type", "Tell from its MBR which way a disk starts");
  bootType->add_option("DISK", *disk, "Whole disk or disk-image file")->required();
  bootType->callback([disk, &status] {
    showBootType(*disk);
    status = kDone;
  });

  const auto volume = std::make_shared<std::string>();
  CLI::App* const bootable = app.add_subcommand("bootable", "Tell whether a volume holds an operating system");
  bootable->add_option("VOLUME", *volume, "Folder where the volume is mounted, or its device")->required();
  bootable->callback([volume, &status] { status = showBootable(*volume) ? kDone : kChangeNeeded; });

  CLI::App* const sip = app.add_subcommand("sip", "Tell whether System Integrity Protection is on");
  sip->callback([&status] {
    std::printf("%s\n", QDSUtilities::isSIPEnabled() ? "enabled" : "disabled");
    status = kDone;
  });

  const auto process = std::make_shared<int>();
  CLI::App* const caller = app.add_subcommand("check-caller", "Tell whether a process is signed by the team");
  caller->add_option("PID", *process, "Process identifier")->required()->check(CLI::PositiveNumber);
  caller->callback([process, &status] { status = showCaller(*process) ? kDone : kChangeNeeded; });
}

}  // namespace vorlix::tool
