// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "Commands.h"
#include "Complaint.h"
#include "Failure.h"
#include "Identity.h"
#include "LibraryLog.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kSchema = 1;

Json guidJson(const std::optional<std::array<uint8_t, 16>>& guid) {
  if (!guid) return Json();
  return {{"text", guidText(guid->data())}, {"raw", rawText(*guid)}};
}

void printJson(const std::string& device, const Identity& identity) {
  const Json document = {
      {"schema", kSchema},
      {"device", device},
      {"name", identity.name},
      {"wholeDisk", identity.wholeDisk},
      {"partition", identity.partition},
      {"mediumType", identity.mediumType ? Json(*identity.mediumType) : Json()},
      {"diskGUID", guidJson(identity.diskGUID)},
      {"partitionGUID", guidJson(identity.partitionGUID)},
      {"offset", identity.offset ? Json(*identity.offset) : Json()},
  };
  std::puts(document.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
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

void addIdentifyCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<IdentifyOptions>();
  CLI::App* const command =
      app.add_subcommand("identify", "Show what identifies a device to boot code and boot stores");
  command->add_option("DEVICE", options->device, "Disk, slice or disk-image file")->required();
  command->add_flag("--json", options->json, "Print JSON (schema version 1)");
  command->callback([options, &status] {
    const LibraryLog log;
    const Identity identity = identify(options->device);
    options->json ? printJson(options->device, identity) : printText(identity);
    if (!identity.nothing.empty()) complain(options->device + ": nothing identifies it: " + identity.nothing);
    status = identity.nothing.empty() ? kDone : kChangeNeeded;
  });
}

}  // namespace vorlix::tool
