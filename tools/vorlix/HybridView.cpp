// SPDX-License-Identifier: Apache-2.0
#include "HybridView.h"

#include <Vorlix/OwnBootCode.h>
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>

#include "SlotJson.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr size_t kSectorRow = 16;
constexpr size_t kDiskSignature = 440;
constexpr size_t kHiddenSectors = 28;

std::string sectorRowText(const Sector& sector, size_t offset, const Field& unknown) {
  std::string text;
  for (size_t i = offset; i < offset + kSectorRow; ++i) {
    const bool isUnknown = i >= unknown.offset && i < unknown.offset + unknown.size;
    if (i != offset) text += ' ';
    text += isUnknown ? "??" : hexByte(sector[i]);
  }
  return text;
}

// The rows of 16 bytes that differ, old above new. Bytes that will be random stand as "??".
void printDifference(const std::string& title, const Sector& before, const Sector& after, const Field& unknown) {
  std::printf("\n%s\n", printable(title).c_str());
  for (size_t offset = 0; offset < before.size(); offset += kSectorRow) {
    const std::string from = sectorRowText(before, offset, {});
    const std::string to = sectorRowText(after, offset, unknown);
    if (from == to) continue;
    std::printf("  %03zX  - %s\n       + %s\n", offset, from.c_str(), to.c_str());
  }
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

// The rows of bytes that would change.
void printBytes(const HybridPlan& plan) {
  if (plan.changesMBR()) {
    printDifference(plan.disk.device + ", sector 0 (boot code and MBR; " + plan.difference.text() + "):",
                    plan.disk.sector0, plan.newSector0, {});
  }
  if (plan.volume && plan.volume->isPatched) printVolumeDifference(*plan.volume);
}

std::vector<std::string> slotRow(const std::string& number, const std::string& when, const MBRPartitionEntry& slot) {
  return {number,
          when,
          slot.flag == 0x80 ? "*" : "",
          hexByte(slot.type),
          mbrTypeName(slot.type),
          std::to_string(slot.lba),
          std::to_string(slot.size)};
}

bool slotChanges(const HybridPlan& plan, size_t index) {
  const auto& slots = plan.difference.slots;
  return std::find(slots.begin(), slots.end(), index + 1) != slots.end();
}

std::string slotTable(const HybridPlan& plan) {
  std::vector<std::vector<std::string>> rows = {{"Slot", "", "Active", "Type", "", "First LBA", "Sectors"}};
  for (size_t i = 0; i < kSlotCount; ++i) {
    const MBRPartitionEntry& now = plan.disk.mbr.parts[i];
    const std::string number = std::to_string(i + 1);
    rows.push_back(slotRow(number, slotChanges(plan, i) ? "now" : "stays", now));
    if (slotChanges(plan, i)) rows.push_back(slotRow("", "then", plan.table.parts[i]));
  }
  return tableText(rows, "rllllrr");
}

const char* originName(BootCodeOrigin origin) {
  switch (origin) {
    case BootCodeOrigin::file:
      return "file";
    case BootCodeOrigin::disk:
      return "disk";
    case BootCodeOrigin::own:
      return "own";
  }
  return "";
}

std::string bootCodeText(const HybridPlan& plan) {
  if (!plan.difference.bootCode) return "stays";
  return plan.bootCode == BootCodeOrigin::own ? "becomes our own" : "becomes the file's";
}

std::string signatureText(const Sector& sector) {
  return hexDigits(littleEndian(sector, kDiskSignature, 4), 8);
}

uint32_t hiddenSectors(const Sector& sector) {
  return static_cast<uint32_t>(littleEndian(sector, kHiddenSectors, 4));
}

void printSector0(const HybridPlan& plan) {
  const std::string disk = printable(plan.disk.device);
  if (!plan.changesMBR()) {
    std::printf("\n%s, sector 0: its slots and boot code are right, it stays as it is.\n", disk.c_str());
    return;
  }
  std::printf("\n%s, sector 0 (%s):\n%s", disk.c_str(), plan.difference.text().c_str(), slotTable(plan).c_str());
  std::printf("Boot code       %s\n", bootCodeText(plan).c_str());
  const std::string now = signatureText(plan.disk.sector0);
  const std::string then = signatureText(plan.newSector0);
  std::printf("Disk signature  %s %s\n", now.c_str(), now == then ? "stays" : ("becomes " + then).c_str());
}

void printVolume(const VolumePlan& volume) {
  const uint32_t now = hiddenSectors(volume.before);
  std::printf("\n%s, boot sector:\n", printable(volume.name).c_str());
  std::printf("Hidden sectors  %u %s\n", now,
              now == volume.start ? "stays" : ("becomes " + std::to_string(volume.start)).c_str());
  if (serialField(volume.before).size > 0) std::printf("Serial          becomes a new random one\n");
  for (const SecondBootSector& second : volume.seconds) {
    if (!second.isCopy) continue;
    std::printf("Second copy     at byte %llu, likewise\n", static_cast<unsigned long long>(second.offset));
  }
}

Json volumePlanJson(const VolumePlan& volume) {
  Json seconds = Json::array();
  for (const SecondBootSector& second : volume.seconds) {
    seconds.append(Json::object({{"offset", second.offset}, {"isCopy", second.isCopy}}));
  }
  std::optional<uint32_t> now;
  std::optional<uint32_t> then;
  if (volume.isPatched) {
    now = hiddenSectors(volume.before);
    then = volume.start;
  }
  return Json::object({
      {"name", volume.name},
      {"isPatched", volume.isPatched},
      {"hiddenSectors", now},
      {"newHiddenSectors", then},
      {"getsNewSerial", volume.isPatched && serialField(volume.before).size > 0},
      {"secondBootSectors", std::move(seconds)},
  });
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

}  // namespace

std::vector<std::string> hybridNotes(const HybridPlan& plan) {
  std::vector<std::string> notes;
  const auto note = [&notes](const std::string& text) { notes.push_back(text); };
  const Sector& before = plan.disk.sector0;
  if (!std::equal(before.begin() + 440, before.begin() + 444, plan.newSector0.begin() + 440)) {
    note("the disk signature at byte 440 now is that of the boot-code file");
  }
  noteBootCode(plan, note);
  if (!plan.volume) return notes;
  const VolumePlan& volume = *plan.volume;
  if (volume.isElsewhere) note(volume.name + " is not on " + plan.disk.device);
  if (volume.oddity) note(volume.name + " " + *volume.oddity);
  if (!volume.isPatched) note("the first sector of " + volume.name + " is left as it is");
  if (volume.lostCopy()) note("the second boot sector is no copy of the first and is left as it is");
  return notes;
}

void printHybridNotes(const HybridPlan& plan) {
  for (const std::string& note : hybridNotes(plan)) std::printf("Note       %s\n", printable(note).c_str());
}

void printHybridPlan(const HybridPlan& plan, bool bytes) {
  std::printf("Dry run: nothing is opened for writing.\n");
  if (!plan.changesMBR() && plan.volume && !plan.changesVolume()) {
    std::printf("No change is needed; a run would only give the volume a new serial.\n");
  }
  printSector0(plan);
  if (plan.volume && plan.volume->isPatched) printVolume(*plan.volume);
  if (bytes) printBytes(plan);
  printHybridNotes(plan);
}

void printHybridPlanJson(const HybridPlan& plan) {
  Json slots = Json::array();
  for (size_t i = 0; i < kSlotCount; ++i) {
    slots.append(Json::object({{"slot", i + 1},
                               {"changes", slotChanges(plan, i)},
                               {"now", slotJson(plan.disk.mbr.parts[i])},
                               {"then", slotJson(plan.table.parts[i])}}));
  }
  Json volume;
  if (plan.volume) volume = volumePlanJson(*plan.volume);
  Json notes = Json::array();
  for (const std::string& note : hybridNotes(plan)) notes.append(note);
  Json::object({{"version", kJsonVersion},
                {"disk", plan.disk.device},
                {"changeNeeded", plan.changesMBR() || plan.changesVolume()},
                {"sector0", Json::object({{"changes", plan.changesMBR()},
                                          {"slots", std::move(slots)},
                                          {"bootCode", originName(plan.bootCode)},
                                          {"bootCodeChanges", plan.difference.bootCode},
                                          {"diskSignature", signatureText(plan.disk.sector0)},
                                          {"newDiskSignature", signatureText(plan.newSector0)}})},
                {"volume", std::move(volume)},
                {"notes", std::move(notes)}})
      .print();
}

}  // namespace vorlix::tool
