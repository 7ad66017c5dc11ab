// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/OwnBootCode.h>
#include <Vorlix/QDSDiskFunctions.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

#include "Backup.h"
#include "Commands.h"
#include "DeviceChanges.h"
#include "DiskTables.h"
#include "Failure.h"
#include "HybridPlan.h"
#include "LibraryLog.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr size_t kRowSize = 16;

struct HybridOptions {
  HybridRequest request;
  std::string type;
  bool dryRun = false;
};

std::string rowText(const Sector& sector, size_t offset, const Field& unknown) {
  std::string text;
  for (size_t i = offset; i < offset + kRowSize; ++i) {
    const bool isUnknown = i >= unknown.offset && i < unknown.offset + unknown.size;
    if (i != offset) text += ' ';
    text += isUnknown ? "??" : hexByte(sector[i]);
  }
  return text;
}

// The rows of 16 bytes that differ, old above new. Bytes that will be random stand as "??".
void printDifference(const std::string& title, const Sector& before, const Sector& after, const Field& unknown) {
  std::printf("\n%s\n", printable(title).c_str());
  for (size_t offset = 0; offset < before.size(); offset += kRowSize) {
    const std::string from = rowText(before, offset, {});
    const std::string to = rowText(after, offset, unknown);
    if (from == to) continue;
    std::printf("  %03zX  - %s\n       + %s\n", offset, from.c_str(), to.c_str());
  }
}

// Says whose boot code will start the active slot, where no file was named.
template <typename Note>
void noteBootCode(const HybridPlan& plan, const Note& note) {
  if (plan.bootCode == BootCodeOrigin::own) {
    note("sector 0 had no boot code and gets our own, which starts the active slot");
  } else if (plan.bootCode == BootCodeOrigin::disk && plan.volume) {
    const bool isOwn = std::ranges::equal(ownBootCode(), Bytes(plan.disk.sector0).first(kPureBootCodeSize));
    const bool isMissing = lacksDiskBootCode(plan.disk.sector0);
    if (!isOwn) {
      note(isMissing ? "sector 0 has no boot code, so the disk starts nothing"
                     : "sector 0 keeps its boot code; --boot-code replaces it if it does not start the active slot");
    }
  }
}

// What a reader would not expect of a run.
void printNotes(const HybridPlan& plan) {
  const auto note = [](const std::string& text) { std::printf("Note       %s\n", printable(text).c_str()); };
  const Sector& before = plan.disk.sector0;
  if (!std::equal(before.begin() + 440, before.begin() + 444, plan.newSector0.begin() + 440)) {
    note("the disk signature at byte 440 now is that of the boot-code file");
  }
  noteBootCode(plan, note);
  if (!plan.volume) return;
  const VolumePlan& volume = *plan.volume;
  if (volume.isElsewhere) note(volume.name + " is not on " + plan.disk.device);
  if (volume.oddity) note(volume.name + " " + *volume.oddity);
  if (!volume.isPatched) note("the first sector of " + volume.name + " is left as it is");
  if (volume.lostCopy()) note("the second boot sector is no copy of the first and is left as it is");
}

void printVolumeDifference(const VolumePlan& volume) {
  const Field serial = serialField(volume.before);
  char places[64] = "hidden sectors at 01C";
  if (serial.size > 0) {
    std::snprintf(places, sizeof places, "hidden sectors at 01C, serial at %03zX; ?? are random bytes", serial.offset);
  }
  printDifference(volume.name + ", boot sector (" + places + "):", volume.before, volume.after, serial);
  for (const SecondBootSector& second : volume.seconds) {
    if (!second.isCopy) continue;
    printDifference(volume.name + ", second boot sector, at byte " + std::to_string(second.offset) + ":", second.now,
                    volume.after, serial);
  }
}

void printDryRun(const HybridPlan& plan) {
  std::printf("Dry run: nothing is opened for writing.\n");
  if (!plan.changesMBR() && plan.volume && !plan.changesVolume()) {
    std::printf("No change is needed; a run would only give the volume a new serial.\n");
  }
  if (plan.changesMBR()) {
    printDifference(plan.disk.device + ", sector 0 (boot code and MBR; " + plan.difference.text() + "):",
                    plan.disk.sector0, plan.newSector0, {});
  } else {
    std::printf("\n%s, sector 0: its slots and boot code are right, it stays as it is.\n",
                printable(plan.disk.device).c_str());
  }
  if (plan.volume && plan.volume->isPatched) printVolumeDifference(*plan.volume);
  printNotes(plan);
}

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
  printNotes(plan);
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
  command.addOption("DISK", request.disk, "Whole disk or disk-image file").required();
  const Option bootCode = command.addOption(
      "--boot-code", request.bootCode,
      "File with MBR boot code, 440 to 446 bytes (default: the disk's own; vorlix's where it has none)");
  command.addFlag("--keep-boot-code", request.keepsBootCode, "Write no boot code even where the disk has none")
      .excludes(bootCode);
  const Option partition =
      command.addOption("--partition", request.partition, "GPT entry and MBR slot of the Windows volume").within(1, 4);
  command.addOption("--type", options->type, "MBR type for that slot, hexadecimal (default: as the GPT asks)");
  command.addOption("--volume", request.volume, "Device of the Windows volume (default: slice N of DISK)");
  command.addOption("--start", request.start, "Sector for the hidden-sectors field (default: the first LBA)");
  command.addFlag("--guard", request.guard, "Write a standard guard (protective) MBR; leave the volume alone");
  command.addFlag("--force", request.force, "Go on with a damaged GPT, or a volume or boot code that looks wrong");
  command.addFlag("--dry-run", options->dryRun, "Show the bytes that would change; open nothing for writing");
  const auto backup = addBackupOptions(command);
  command.setAction([options, backup, partition, bootCode, &status] {
    if (!partition.isGiven() && !options->request.guard) refuseWithout("--partition");
    if (bootCode.isGiven() && options->request.bootCode.empty()) refuseValue("--boot-code", "names no file");
    options->request.type = parseMBRType(options->type);
    options->request.writes = !options->dryRun;
    const HybridPlan plan = planHybrid(options->request);
    if (options->dryRun) {
      printDryRun(plan);
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
