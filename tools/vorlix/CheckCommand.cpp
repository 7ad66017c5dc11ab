// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

#include "Commands.h"
#include "DiskTables.h"
#include "Failure.h"
#include "HybridPlan.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

struct CheckOptions {
  std::string disk;
  uint32_t partition = 0;
  std::string type;
};

// Prints one finding and tells whether all is well with it.
bool finding(const char* subject, bool right, const std::string& text) {
  std::printf("%-12s %-6s  %s\n", subject, right ? "ok" : "change", printable(text).c_str());
  return right;
}

std::string activeSlots(const DiskTables& disk) {
  std::string list;
  for (size_t i = 0; i < 4; ++i) {
    if (disk.mbr.parts[i].flag == 0x80) list += (list.empty() ? "" : ", ") + std::to_string(i + 1);
  }
  return list;
}

bool checkGPT(const DiskTables& disk) {
  for (const GPTFinding& damage : disk.damage) finding("GPT", false, damage.text);
  return disk.damage.empty();
}

bool checkMBR(const HybridPlan& plan) {
  if (!plan.disk.hasMBR()) return finding("MBR", false, "sector 0 has no 55 AA signature");
  if (const auto reason = whyNoHybrid(plan.disk))
    return finding("MBR", false, "there can be no hybrid MBR: " + *reason);
  std::string slots;
  for (const uint32_t slot : plan.difference.slots) slots += (slots.empty() ? "" : ", ") + std::to_string(slot);
  if (slots.empty()) return finding("MBR", true, "equals the hybrid MBR that the GPT asks for");
  return finding("MBR", false, "differs from the hybrid MBR that the GPT asks for in slot " + slots);
}

// Whose code it is nobody can tell; none at all starts nothing.
bool checkBootCode(const char* subject, bool isMissing, const std::string& where) {
  return finding(subject, !isMissing, (isMissing ? "nothing but zeros in " : "there is some in ") + where);
}

bool checkActive(const HybridPlan& plan, uint32_t partition) {
  const std::string slots = activeSlots(plan.disk);
  if (slots.empty()) return finding("Active slot", false, "none is active");
  const bool right = slots == std::to_string(partition);
  return finding("Active slot", right,
                 right ? "slot " + slots + " alone"
                       : "slot " + slots + " instead of slot " + std::to_string(partition) + " alone");
}

bool checkBootSector(const VolumePlan& volume) {
  const uint32_t field = hiddenSectors(volume.before);
  const bool right = field == volume.start;
  return finding("Boot sector", right,
                 "hidden sectors " + std::to_string(field) +
                     (right ? ", the first LBA of " : "; the first LBA is " + std::to_string(volume.start) + " on ") +
                     volume.name);
}

// A volume that ends before its partition has a second place for the copy; one that is right will do.
bool checkSecondBootSector(const VolumePlan& volume) {
  if (volume.seconds.empty()) return true;
  for (const SecondBootSector& second : volume.seconds) {
    if (second.now == volume.before) {
      return finding("Second copy", true, "equals the boot sector, at byte " + std::to_string(second.offset));
    }
  }
  return finding("Second copy", false,
                 "differs from the boot sector, at byte " + std::to_string(volume.seconds.front().offset) +
                     (volume.lostCopy() ? ", in more than hidden sectors and serial" : ""));
}

bool checkVolume(const VolumePlan& volume) {
  if (volume.oddity) return finding("Volume", false, volume.name + " " + *volume.oddity);
  const bool bootSector = checkBootSector(volume);
  const bool second = checkSecondBootSector(volume);
  const bool code = checkBootCode("Volume code", lacksBootCode(volume.before), "the boot sector of " + volume.name);
  return bootSector && second && code;
}

// Boot code proper, without the disk signature that follows it.
bool lacksDiskCode(const DiskTables& disk) {
  const auto begin = disk.sector0.begin();
  return std::all_of(begin, begin + static_cast<std::ptrdiff_t>(kPureBootCodeSize),
                     [](uint8_t byte) { return byte == 0; });
}

}  // namespace

void addCheckCommand(Command& top, int& status) {
  const auto options = std::make_shared<CheckOptions>();
  Command command = top.addCommand(
      "check", "Tell, without writing, whether MBR, active slot and boot sector are right for legacy start");
  command.addOption("DISK", options->disk, "Disk or disk-image file").required();
  command.addOption("--partition", options->partition, "GPT entry and MBR slot of the Windows volume")
      .required()
      .within(1, 4);
  command.addOption("--type", options->type, "MBR type of that slot, hexadecimal, where `hybrid` was given one");
  command.setAction([options, &status] {
    HybridRequest request;
    request.disk = options->disk;
    request.partition = options->partition;
    request.type = parseMBRType(options->type);
    const HybridPlan plan = planHybrid(request);
    const bool gpt = checkGPT(plan.disk);
    const bool mbr = checkMBR(plan);
    const bool active = checkActive(plan, options->partition);
    const bool code = checkBootCode("Boot code", lacksDiskCode(plan.disk), "sector 0 of " + plan.disk.device);
    const bool volume = checkVolume(*plan.volume);
    status = gpt && mbr && active && code && volume ? kDone : kChangeNeeded;
  });
}

}  // namespace vorlix::tool
