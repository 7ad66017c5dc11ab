// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <memory>
#include <string>

#include "Commands.h"
#include "Complaint.h"
#include "DiskTables.h"
#include "Failure.h"
#include "Identity.h"
#include "Json.h"
#include "LibraryLog.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

Json guidJson(const std::optional<std::array<uint8_t, 16>>& guid) {
  if (!guid) return Json();
  return Json::object({{"text", guidText(guid->data())}, {"raw", rawText(*guid)}});
}

void printJson(const std::string& device, const Identity& identity) {
  const Json document = Json::object({
      {"version", kJsonVersion},
      {"schema", kJsonVersion},
      {"device", device},
      {"name", identity.name},
      {"wholeDisk", identity.wholeDisk},
      {"partition", identity.partition},
      {"mediumType", identity.mediumType},
      {"diskGUID", guidJson(identity.diskGUID)},
      {"partitionGUID", guidJson(identity.partitionGUID)},
      {"offset", identity.offset},
  });
  document.print();
}

void printGUID(const char* label, const std::optional<std::array<uint8_t, 16>>& guid) {
  if (!guid) {
    std::printf("%-15s unknown\n", label);
    return;
  }
  std::printf("%-15s %s\n%-15s %s (raw)\n", label, guidText(guid->data()).c_str(), "", rawText(*guid).c_str());
}

void printText(const Identity& identity) {
  std::printf("%-15s %s\n", "Device", printable(identity.name).c_str());
  std::printf("%-15s %s\n", "Whole disk", printable(identity.wholeDisk).c_str());
  if (identity.partition != 0) std::printf("%-15s %d\n", "Partition", identity.partition);
  std::printf("%-15s %s\n", "Medium type", identity.mediumType.value_or("unknown").c_str());
  printGUID("Disk GUID", identity.diskGUID);
  if (identity.name == identity.wholeDisk) return;
  printGUID("Partition GUID", identity.partitionGUID);
  const std::string offset = identity.offset ? std::to_string(*identity.offset) + " bytes" : "unknown";
  std::printf("%-15s %s\n", "Offset", offset.c_str());
}

struct IdentifyOptions {
  std::string device;
  bool json = false;
};

}  // namespace

void addIdentifyCommand(Command& top, int& status) {
  const auto options = std::make_shared<IdentifyOptions>();
  Command command = top.addCommand("identify", "Show what identifies a device to boot code and boot stores");
  command.addOption("DEVICE", options->device, "Disk, slice or disk-image file")
      .completes(ValueKind::device)
      .required();
  command.addFlag("--json", options->json, "Print JSON");
  command.setExamples({"vorlix identify /dev/sda3", "vorlix identify mac.imgs3 --json"});
  command.setAction([options, &status] {
    const LibraryLog log;
    const Identity identity = identify(options->device);
    mentionTruncation(options->device);
    options->json ? printJson(options->device, identity) : printText(identity);
    if (!identity.nothing.empty()) complain(options->device + ": nothing identifies it: " + identity.nothing);
    status = identity.nothing.empty() ? kDone : kChangeNeeded;
  });
}

}  // namespace vorlix::tool
