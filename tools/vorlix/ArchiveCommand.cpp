// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDDiskInfo.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/KeyedArchive.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "Commands.h"
#include "Failure.h"
#include "Files.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kArchiveSchema = 1;

Json textJson(const std::optional<std::string>& text) {
  return text ? Json(*text) : Json();
}

Json uuidJson(const std::optional<UUID>& uuid) {
  return uuid ? Json(uuid->text()) : Json();
}

Json hexJson(const std::shared_ptr<Data>& bytes) {
  if (!bytes) return Json();
  std::string text;
  for (const uint8_t byte : *bytes) text += hexByte(byte);
  return text;
}

Json recordJson(const QDVolume& volume) {
  const auto usage = volume.usageDescription();
  const auto partition = volume.partitionID();
  const auto info = volume.info();
  return {
      {"diskName", textJson(volume.diskName())},
      {"filePath", textJson(volume.filePath())},
      {"device", textJson(volume.device())},
      {"drivePath", textJson(volume.drivePath())},
      {"humanSize", textJson(volume.humanSize())},
      {"totalSize", textJson(volume.totalSize())},
      {"freeSpace", textJson(volume.freeSpace())},
      {"fileSystemType", textJson(volume.fileSystemType())},
      {"volumeType", textJson(volume.volumeType())},
      {"usageDescription", usage ? Json(usage->string()) : Json()},
      {"partitionID", partition ? Json(*partition) : Json()},
      {"info", info ? Json(*info) : Json()},
      {"mbr", hexJson(volume.mbr())},
      {"isVM", volume.isVM()},
      {"vmUsername", textJson(volume.vmUsername())},
      {"isBootable", volume.isBootable()},
      {"isRemovable", volume.isRemovable()},
      {"volumeUUID", uuidJson(volume.volumeUUID())},
      {"mediaUUID", uuidJson(volume.mediaUUID())},
      {"mediaContentUUID", uuidJson(volume.mediaContentUUID())},
  };
}

Json diskInfoJson(const QDDiskInfo& info) {
  const auto& path = info.volumePath();
  return {
      {"volumeKind", textJson(info.volumeKind())}, {"volumeMountable", info.volumeMountable()},
      {"volumeName", textJson(info.volumeName())}, {"volumePath", path ? Json(path->path()) : Json()},
      {"volumeType", textJson(info.volumeType())}, {"volumeUUID", uuidJson(info.volumeUUID())},
  };
}

std::string fieldText(const Json& value) {
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  return printable(value.get<std::string>());
}

void showArchive(const std::string& file, bool asJson) {
  const Data bytes = readFile(file, KeyedUnarchiver::kLargestArchive);
  Json document = {{"schema", kArchiveSchema}};
  if (const auto volume = KeyedUnarchiver::unarchivedObject<QDVolume>(bytes)) {
    document["class"] = QDVolume::kArchiveClass;
    document["fields"] = recordJson(*volume);
  } else if (const auto info = KeyedUnarchiver::unarchivedObject<QDDiskInfo>(bytes)) {
    document["class"] = QDDiskInfo::kArchiveClass;
    document["fields"] = diskInfoJson(*info);
  } else {
    throw Failure(file, "holds no archive of a volume or disk record");
  }
  if (asJson) {
    std::puts(document.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
    return;
  }
  std::printf("%s\n", document["class"].get<std::string>().c_str());
  for (const auto& [name, value] : document["fields"].items()) {
    if (!value.is_null()) std::printf("  %-17s %s\n", name.c_str(), fieldText(value).c_str());
  }
}

struct ArchiveOptions {
  std::string file;
  bool json = false;
};

}  // namespace

void addArchiveCommand(CLI::App& app, int& status) {
  CLI::App* const archive = app.add_subcommand("archive", "Inspect archives of volume and disk records");
  archive->require_subcommand(1);
  const auto options = std::make_shared<ArchiveOptions>();
  CLI::App* const show = archive->add_subcommand("show", "Show the record that an archive holds");
  show->add_option("FILE", options->file, "The archive")->required();
  show->add_flag("--json", options->json, "Print JSON (schema version 1)");
  show->footer(
      "An archive is a property list, binary or XML, in which programs exchange QDVolume and QDDiskInfo records.\n"
      "Only the fields of these records are read, even from a hostile archive. Passwords are never shown, because\n"
      "reading an archive skips them.\n"
      "Exit status: 0 success, 2 error.");
  show->callback([options, &status] {
    showArchive(options->file, options->json);
    status = kDone;
  });
}

}  // namespace vorlix::tool
