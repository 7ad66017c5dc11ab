// SPDX-License-Identifier: Apache-2.0
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

bool checkMBR(const HybridPlan& plan) {
  if (!plan.disk.hasMBR()) return finding("MBR", false, "sector 0 has no 55 AA signature");
  std::string slots;
  for (size_t i = 0; i < 4; ++i) {
    if (!sameSlot(plan.table.parts[i], plan.disk.mbr.parts[i])) {
      slots += (slots.empty() ? "" : ", ") + std::to_string(i + 1);
    }
  }
  if (slots.empty()) return finding("MBR", true, "equals the hybrid MBR that the GPT asks for");
  return finding("MBR", false, "differs from the hybrid MBR that the GPT asks for in slot " + slots);
}

bool checkActive(const HybridPlan& plan, uint32_t partition) {
  const std::string slots = activeSlots(plan.disk);
  if (slots.empty()) return finding("Active slot", false, "none is active");
  const bool right = slots == std::to_string(partition);
  return finding("Active slot", right,
                 right ? "slot " + slots + " alone"
                       : "slot " + slots + " instead of slot " + std::to_string(partition) + " alone");
}

bool checkBootSector(const HybridPlan& plan) {
  const uint32_t field = hiddenSectors(plan.bootSector);
  const bool right = field == plan.start;
  return finding("Boot sector", right,
                 "hidden sectors " + std::to_string(field) +
                     (right ? ", the first LBA of " : "; the first LBA is " + std::to_string(plan.start) + " on ") +
                     plan.volume);
}

}  // namespace

void addCheckCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<CheckOptions>();
  CLI::App* const command = app.add_subcommand(
      "check", "Tell, without writing, whether MBR, active slot and boot sector are right for legacy start");
  command->add_option("DISK", options->disk, "Disk or disk-image file")->required();
  command->add_option("--partition", options->partition, "GPT entry and MBR slot of the Windows volume")
      ->required()
      ->check(CLI::Range(1, 4));
  command->add_option("--type", options->type, "MBR type of that slot, hexadecimal, where `hybrid` was given one");
  command->callback([options, &status] {
    HybridRequest request;
    request.disk = options->disk;
    request.partition = options->partition;
    request.type = parseMBRType(options->type);
    const HybridPlan plan = planHybrid(request);
    const bool mbr = checkMBR(plan);
    const bool active = checkActive(plan, options->partition);
    const bool bootSector = checkBootSector(plan);
    status = mbr && active && bootSector ? kDone : kChangeNeeded;
  });
}

}  // namespace vorlix::tool
