// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDDiskInfo.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/KeyedArchive.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "Commands.h"
#include "Failure.h"
#include "Files.h"
#include "Json.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

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
  return Json::object({
      {"diskName", volume.diskName()},
      {"filePath", volume.filePath()},
      {"device", volume.device()},
      {"drivePath", volume.drivePath()},
      {"humanSize", volume.humanSize()},
      {"totalSize", volume.totalSize()},
      {"freeSpace", volume.freeSpace()},
      {"fileSystemType", volume.fileSystemType()},
      {"volumeType", volume.volumeType()},
      {"usageDescription", usage ? Json(usage->string()) : Json()},
      {"partitionID", partition ? Json(*partition) : Json()},
      {"info", info ? Json(*info) : Json()},
      {"mbr", hexJson(volume.mbr())},
      {"isVM", volume.isVM()},
      {"vmUsername", volume.vmUsername()},
      {"isBootable", volume.isBootable()},
      {"isRemovable", volume.isRemovable()},
      {"volumeUUID", uuidJson(volume.volumeUUID())},
      {"mediaUUID", uuidJson(volume.mediaUUID())},
      {"mediaContentUUID", uuidJson(volume.mediaContentUUID())},
  });
}

Json diskInfoJson(const QDDiskInfo& info) {
  const auto& path = info.volumePath();
  return Json::object({
      {"volumeKind", info.volumeKind()},
      {"volumeMountable", info.volumeMountable()},
      {"volumeName", info.volumeName()},
      {"volumePath", path ? Json(path->path()) : Json()},
      {"volumeType", info.volumeType()},
      {"volumeUUID", uuidJson(info.volumeUUID())},
  });
}

std::string fieldText(const Json& value) {
  if (const bool* const answer = value.boolean()) return *answer ? "yes" : "no";
  return printable(*value.text());
}

void showArchive(const std::string& file, bool asJson) {
  const Data bytes = readFile(file, KeyedUnarchiver::kLargestArchive);
  const char* recordClass = nullptr;
  Json fields;
  if (const auto volume = KeyedUnarchiver::unarchivedObject<QDVolume>(bytes)) {
    recordClass = QDVolume::kArchiveClass;
    fields = recordJson(*volume);
  } else if (const auto info = KeyedUnarchiver::unarchivedObject<QDDiskInfo>(bytes)) {
    recordClass = QDDiskInfo::kArchiveClass;
    fields = diskInfoJson(*info);
  } else {
    throw Failure(file, "holds no archive of a volume or disk record");
  }
  if (asJson) {
    Json::object(
        {{"version", kJsonVersion}, {"schema", kJsonVersion}, {"class", recordClass}, {"fields", std::move(fields)}})
        .print();
    return;
  }
  std::printf("%s\n", recordClass);
  for (const auto& [name, value] : fields.members()) {
    if (!value.isNull()) std::printf("  %-17s %s\n", name.c_str(), fieldText(value).c_str());
  }
}

struct ArchiveOptions {
  std::string file;
  bool json = false;
};

}  // namespace

void addArchiveCommand(Command& top, int& status) {
  Command archive = top.addCommand("archive", "Inspect archives of volume and disk records");
  archive.requireCommand();
  archive.setExamples({"vorlix archive show volume.archive"});
  const auto options = std::make_shared<ArchiveOptions>();
  Command show = archive.addCommand("show", "Show the record that an archive holds");
  show.addOption("FILE", options->file, "The archive").completes(ValueKind::file).required().completes(ValueKind::file);
  show.addFlag("--json", options->json, "Print JSON");
  show.setFooter(
      "An archive is a property list, binary or XML, in which programs exchange QDVolume and QDDiskInfo records.\n"
      "Only the fields of these records are read, even from a hostile archive. Passwords are never shown, because\n"
      "reading an archive skips them.\n"
      "Exit status: 0 success, 2 error.");
  show.setExamples({"vorlix archive show volume.archive --json"});
  show.setAction([options, &status] {
    showArchive(options->file, options->json);
    status = kDone;
  });
}

}  // namespace vorlix::tool
