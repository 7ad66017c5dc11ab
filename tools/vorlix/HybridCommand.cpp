// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "Arbitration.h"
#include "Backup.h"
#include "Commands.h"
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
  std::string backupFolder;
};

std::string rowText(const Sector& sector, size_t offset, bool serialUnknown) {
  std::string text;
  for (size_t i = offset; i < offset + kRowSize; ++i) {
    const bool unknown = serialUnknown && i >= kSerialOffset && i < kSerialOffset + kSerialSize;
    if (i != offset) text += ' ';
    text += unknown ? "??" : hexByte(sector[i]);
  }
  return text;
}

// The rows of 16 bytes that differ, old above new. Bytes that will be random stand as "??".
void printDifference(const std::string& title, const Sector& before, const Sector& after, bool serialUnknown) {
  std::printf("\n%s\n", printable(title).c_str());
  for (size_t offset = 0; offset < before.size(); offset += kRowSize) {
    const std::string from = rowText(before, offset, false);
    const std::string to = rowText(after, offset, serialUnknown);
    if (from == to) continue;
    std::printf("  %03zX  - %s\n       + %s\n", offset, from.c_str(), to.c_str());
  }
}

void printDryRun(const HybridPlan& plan) {
  std::printf("Dry run: nothing is opened for writing.\n");
  if (!plan.changesMBR() && plan.patchesVolume && !plan.changesHiddenSectors()) {
    std::printf("No change is needed; a run would only give the volume a new serial.\n");
  }
  if (plan.changesMBR()) {
    printDifference(plan.disk.device + ", sector 0 (boot code and MBR):", plan.disk.sector0, plan.newSector0(), false);
  } else {
    std::printf("\n%s, sector 0: its slots are right, it stays as it is.\n", printable(plan.disk.device).c_str());
  }
  if (plan.patchesVolume) {
    printDifference(plan.volume + ", boot sector (hidden sectors at 01C, serial at 048; ?? are random bytes):",
                    plan.bootSector, plan.newBootSector(), true);
  }
}

bool equalButSerial(const Sector& one, const Sector& other) {
  const auto serial = static_cast<std::ptrdiff_t>(kSerialOffset);
  const auto rest = static_cast<std::ptrdiff_t>(kSerialOffset + kSerialSize);
  return std::equal(one.begin(), one.begin() + serial, other.begin()) &&
         std::equal(one.begin() + rest, one.end(), other.begin() + rest);
}

// What the run should have left behind, and what is really there.
class Verification {
 public:
  explicit Verification(const HybridPlan& plan) : plan_(plan), disk_(readTables(plan.disk.device)) {
    if (plan.patchesVolume) bootSector_ = readBootSector(plan.volume);
  }

  bool mbrRight() const { return disk_.sector0 == plan_.newSector0(); }
  bool mbrTouched() const { return disk_.sector0 != plan_.disk.sector0; }
  bool volumeRight() const { return equalButSerial(bootSector_, plan_.newBootSector()); }
  bool volumeTouched() const { return bootSector_ != plan_.bootSector; }

 private:
  const HybridPlan& plan_;
  DiskTables disk_;
  Sector bootSector_ = {};
};

std::string touchedText(const HybridPlan& plan, const Verification& now) {
  if (!now.mbrTouched() && !now.volumeTouched()) return "nothing was written";
  std::string text = now.mbrTouched() ? "sector 0 was written" : "sector 0 was not written";
  if (plan.patchesVolume) {
    text += now.volumeTouched() ? ", the boot sector was written" : ", the boot sector was not written";
  }
  return text;
}

void saveBackup(const HybridPlan& plan, const std::string& folder) {
  if (plan.writesMBR()) {
    std::printf("Saved      %s\n", printable(saveBytes(folder, plan.disk.device, 0, plan.disk.sector0)).c_str());
  }
  if (plan.patchesVolume) {
    std::printf("Saved      %s\n", printable(saveBytes(folder, plan.volume, 0, plan.bootSector)).c_str());
  }
}

void printDone(const HybridPlan& plan) {
  if (plan.writesMBR()) {
    const Sector after = plan.newSector0();
    std::printf("MBR        written to %s and read back\n", printable(plan.disk.device).c_str());
    if (!std::equal(after.begin() + 440, after.begin() + 444, plan.disk.sector0.begin() + 440)) {
      std::printf("Note       the disk signature at byte 440 now is that of the boot-code file\n");
    }
  } else {
    std::printf("MBR        right already, not written\n");
  }
  if (plan.patchesVolume) {
    std::printf("Volume     %s: hidden sectors %u and a new serial, read back\n", printable(plan.volume).c_str(),
                plan.start);
  }
}

// Opens a device as the library is about to. What the system says of a device that cannot be opened does not reach the
// library's log, and with a disk and a volume in hand neither is written when the other cannot be.
std::unique_ptr<DeviceHandle> openForWriting(const std::string& device) {
  DeviceFile& files = *platform().deviceFile;
  auto handle = files.open(device, DeviceAccess::readWrite, DeviceLock::exclusive);
  if (!handle) handle = files.open(device, DeviceAccess::readWrite, DeviceLock::shared);
  if (handle) return handle;
  if (errno == EWOULDBLOCK) throw Failure(device, "locked by another process");
  throw Failure::ofErrno(device, errno);
}

// A driver or a mirror keeps what it knows of the boot sector, and writes it back or takes the volume for another one.
void requireUnmounted(const HybridPlan& plan) {
  if (!plan.patchesVolume) return;
  if (const auto path = mountPointOf(plan.volume)) {
    throw Failure(plan.volume, "is mounted at " + *path + " and has to be unmounted first");
  }
}

void requireOnMedium(DeviceHandle* written, const std::string& device) {
  if (written == nullptr || written->sync() == 0) return;
  throw Failure(device, std::strerror(errno), "what was written is not on the medium");
}

void apply(const HybridPlan& plan, const HybridOptions& options) {
  if (!plan.writesMBR() && !plan.disk.hasMBR()) {
    throw Failure(plan.disk.device, "sector 0 has the right slots but no 55 AA signature, which is not repaired here");
  }
  requireUnmounted(plan);
  const auto disk = plan.writesMBR() ? openForWriting(plan.disk.device) : nullptr;
  const auto volume = plan.patchesVolume ? openForWriting(plan.volume) : nullptr;
  if (!options.backupFolder.empty()) saveBackup(plan, options.backupFolder);
  std::fflush(stdout);

  const HybridRequest& request = options.request;
  const LibraryLog log;
  const int result = update_mbr_and_partition(request.disk.c_str(), request.bootCode.c_str(), request.partition,
                                              request.type, plan.volume.c_str(), request.guard ? 1 : 0, plan.start);
  // What is read back may come from memory. The handles are older than what was written, so that they hear of its fate.
  requireOnMedium(disk.get(), plan.disk.device);
  requireOnMedium(volume.get(), plan.volume);
  const Verification now(plan);
  const bool volumeRight = !plan.patchesVolume || now.volumeRight();
  if (result == 0 && now.mbrRight() && volumeRight) return;
  log.print();
  if (!now.mbrRight()) throw Failure(request.disk, "the MBR is not what it should be", touchedText(plan, now));
  throw Failure(plan.volume, "the boot sector could not be patched", touchedText(plan, now));
}

}  // namespace

void addHybridCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<HybridOptions>();
  HybridRequest& request = options->request;
  CLI::App* const command =
      app.add_subcommand("hybrid", "Write the hybrid MBR that a disk's GPT asks for and patch a moved Windows volume");
  command->add_option("DISK", request.disk, "Whole disk or disk-image file")->required();
  command->add_option("--boot-code", request.bootCode, "File with the MBR boot code (440 to 446 bytes are used)")
      ->required();
  CLI::Option* const partition =
      command->add_option("--partition", request.partition, "GPT entry and MBR slot of the Windows volume")
          ->check(CLI::Range(1, 4));
  command->add_option("--type", options->type, "MBR type for that slot, hexadecimal (default: as the GPT asks)");
  command->add_option("--volume", request.volume, "Device of the Windows volume (default: slice N of DISK)");
  command->add_option("--start", request.start, "Sector for the hidden-sectors field (default: the first LBA)");
  command->add_flag("--guard", request.guard, "Write a standard guard (protective) MBR; leave the volume alone");
  command->add_flag("--dry-run", options->dryRun, "Show the bytes that would change; open nothing for writing");
  command->add_option("--backup", options->backupFolder, "Folder for the sectors about to change, saved before");
  command->callback([options, partition, &status] {
    if (partition->empty() && !options->request.guard) throw CLI::RequiredError("--partition");
    options->request.type = parseMBRType(options->type);
    const HybridPlan plan = planHybrid(options->request);
    if (options->dryRun) {
      printDryRun(plan);
      status = plan.changesMBR() || plan.changesHiddenSectors() ? kChangeNeeded : kDone;
      return;
    }
    apply(plan, *options);
    printDone(plan);
    status = kDone;
  });
}

}  // namespace vorlix::tool
