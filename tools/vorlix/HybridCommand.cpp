// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSDiskFunctions.h>

#include <cstdio>
#include <memory>
#include <string>

#include "Backup.h"
#include "Commands.h"
#include "DeviceChanges.h"
#include "DiskTables.h"
#include "Failure.h"
#include "HybridPlan.h"
#include "HybridView.h"
#include "LibraryLog.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

struct HybridOptions {
  HybridRequest request;
  std::string type;
  bool dryRun = false;
  bool bytes = false;
  bool json = false;
};

void printDone(const HybridPlan& plan) {
  if (plan.changesMBR()) {
    std::printf("MBR        written to %s and read back (%s)\n", printable(plan.disk.device).c_str(),
                plan.difference.pastText().c_str());
  } else {
    std::printf("MBR        right already, not written\n");
  }
  if (plan.volume && plan.volume->isPatched) {
    const VolumePlan& volume = *plan.volume;
    std::printf("Volume     %s: hidden sectors %u%s, read back\n", printable(volume.name).c_str(), volume.start,
                serialField(volume.before).size > 0 ? " and a new serial" : "");
    for (const SecondBootSector& second : volume.seconds) {
      if (!second.isCopy) continue;
      std::printf("Copy       the second boot sector, at byte %llu, likewise\n",
                  static_cast<unsigned long long>(second.offset));
    }
  }
  printHybridNotes(plan);
}

// Returns the folder of the backup.
std::string apply(const HybridPlan& plan, const BackupChoice& choice) {
  const LibraryLog log;
  const std::string& disk = plan.disk.device;
  const std::string volume = plan.volume ? plan.volume->name : "no volume";
  logLine(("Writing the hybrid MBR of " + disk + " and the boot sector of " + volume + "\n").c_str());
  const std::string kept = applyOrFail(plan.change(), changeBackup(choice));
  logLine(("The hybrid MBR of " + disk + " is on the medium\n").c_str());
  return kept;
}

}  // namespace

void addHybridCommand(Command& top, int& status) {
  const auto options = std::make_shared<HybridOptions>();
  HybridRequest& request = options->request;
  Command command =
      top.addCommand("hybrid", "Write the hybrid MBR that a disk's GPT asks for and patch a moved Windows volume");
  command.addOption("DISK", request.disk, "Whole disk or disk-image file").completes(ValueKind::disk).required();
  const Option bootCode =
      command
          .addOption("--boot-code", request.bootCode,
                     "File with MBR boot code, 440 to 446 bytes (default: the disk's own; vorlix's where it has none)")
          .completes(ValueKind::file);
  command.addFlag("--keep-boot-code", request.keepsBootCode, "Write no boot code even where the disk has none")
      .excludes(bootCode);
  const Option partition =
      command.addOption("--partition", request.partition, "GPT entry and MBR slot of the Windows volume")
          .completes(ValueKind::partition)
          .within(1, 4);
  command.addOption("--type", options->type, "MBR type for that slot, hexadecimal (default: as the GPT asks)")
      .completes(ValueKind::text);
  command.addOption("--volume", request.volume, "Device of the Windows volume (default: slice N of DISK)")
      .completes(ValueKind::device);
  command.addOption("--start", request.start, "Sector for the hidden-sectors field (default: the first LBA)")
      .completes(ValueKind::text);
  command.addFlag("--guard", request.guard, "Write a standard guard (protective) MBR; leave the volume alone");
  command.addFlag("--force", request.force, "Go on with a damaged GPT, or a volume or boot code that looks wrong");
  const Option dryRun =
      command.addFlag("--dry-run", options->dryRun, "Show what would change; open nothing for writing");
  const Option bytes = command.addFlag("--bytes", options->bytes, "Show the bytes as well").needs(dryRun);
  command.addFlag("--json", options->json, "Show it as JSON").needs(dryRun).excludes(bytes);
  const auto backup = addBackupOptions(command);
  command.setExamples({"vorlix hybrid mac.img --partition 3 --dry-run",
                       "vorlix hybrid /dev/sda --partition 4 --backup saved", "vorlix hybrid /dev/sda --guard"});
  command.setAction([options, backup, partition, bootCode, &status] {
    if (!partition.isGiven() && !options->request.guard) refuseWithout("--partition");
    if (bootCode.isGiven() && options->request.bootCode.empty()) refuseValue("--boot-code", "names no file");
    options->request.type = parseMBRType(options->type);
    options->request.writes = !options->dryRun;
    const HybridPlan plan = planHybrid(options->request);
    if (options->dryRun) {
      options->json ? printHybridPlanJson(plan) : printHybridPlan(plan, options->bytes);
      status = plan.changesMBR() || plan.changesVolume() ? kChangeNeeded : kDone;
      return;
    }
    const std::string kept = apply(plan, *backup);
    printDone(plan);
    printUndo(kept);
    status = kDone;
  });
}

}  // namespace vorlix::tool
