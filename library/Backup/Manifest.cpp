// SPDX-License-Identifier: Apache-2.0
#include "Manifest.h"

#include <Vorlix/foundation/Sha256.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Layout.h"

namespace vorlix {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kFormat = "vorlix-backup";
constexpr int kVersion = 1;
constexpr size_t kHashDigits = 64;
constexpr const char* kImageKey = "image";
constexpr const char* kMapKey = "blockMap";

std::string hashOf(const std::string& text) {
  return sha256({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

Json entryOf(const ManifestFile& file) {
  return {{"file", file.file}, {"size", file.size}, {"sha256", file.sha256}};
}

const ManifestFile* fileOf(const std::vector<ManifestFile>& files, const std::string& key) {
  const auto found =
      std::find_if(files.begin(), files.end(), [&](const ManifestFile& file) { return file.key == key; });
  return found == files.end() ? nullptr : &*found;
}

Json filesJson(const BackupPlan& plan, const std::vector<ManifestFile>& files) {
  Json result = Json::object();
  for (const char* const key : {kImageKey, kMapKey}) result[key] = entryOf(*fileOf(files, key));
  for (const BackupPart& part : plan.parts) {
    const ManifestFile* const file = fileOf(files, part.key);
    result[part.key] = file == nullptr ? Json() : entryOf(*file);
    if (file != nullptr && part.diskOffset) result[part.key]["diskOffset"] = *part.diskOffset;
    if (file != nullptr && part.volumeOffset) result[part.key]["volumeOffset"] = *part.volumeOffset;
  }
  return result;
}

Json missingJson(const BackupPlan& plan) {
  Json result = Json::object();
  for (const BackupPart& part : plan.parts) {
    if (!part.missing.empty()) result[part.key] = part.missing;
  }
  return result;
}

// Throws the JSON library's exceptions.
void readInto(const Json& json, Manifest& manifest) {
  manifest.volumeSize = json.at("volume").at("size").get<uint64_t>();
  manifest.savedBytes = json.at("saved").at("bytes").get<uint64_t>();
  manifest.ranges = json.at("saved").at("ranges").get<uint64_t>();
  for (const auto& [key, entry] : json.at("files").items()) {
    if (entry.is_null()) continue;
    manifest.files.push_back({key, entry.at("file").get<std::string>(), entry.at("size").get<uint64_t>(),
                              entry.at("sha256").get<std::string>()});
  }
}

}  // namespace

const ManifestFile* Manifest::find(const std::string& file) const {
  const auto found =
      std::find_if(files.begin(), files.end(), [&](const ManifestFile& entry) { return entry.file == file; });
  return found == files.end() ? nullptr : &*found;
}

std::string manifestText(const BackupPlan& plan, const std::vector<ManifestFile>& files, uint64_t ranges) {
  const Allocation& allocation = plan.allocation;
  const Json document = {
      {"format", kFormat},
      {"version", kVersion},
      {"sha256", std::string(kHashDigits, '0')},
      {"volume",
       {{"name", plan.name},
        {"wholeDisk", plan.wholeDisk},
        {"size", plan.size},
        {"sectorSize", plan.sectorSize},
        {"fileSystem", allocation.fileSystem.empty() ? Json() : Json(allocation.fileSystem)},
        {"clusterSize", allocation.clusterSize == 0 ? Json() : Json(allocation.clusterSize)}}},
      {"saved",
       {{"everything", !allocation.doubt.empty()},
        {"reason", allocation.doubt.empty() ? Json() : Json(allocation.doubt)},
        {"warnings", plan.warnings},
        {"bytes", allocation.usedBytes()},
        {"ranges", ranges},
        {"frames", frameCountOf(plan.size)},
        {"frameSize", kFrameSize}}},
      {"files", filesJson(plan, files)},
      {"missing", missingJson(plan)},
  };
  std::string text = document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  const std::string start = "\"sha256\": \"";
  text.replace(text.find(start) + start.size(), kHashDigits, hashOf(text));
  return text;
}

std::string readManifest(const std::vector<uint8_t>& bytes, Manifest& manifest) {
  const Json json = Json::parse(bytes.begin(), bytes.end(), nullptr, false);
  try {
    if (json.is_discarded() || json.at("format") != kFormat) return "is no manifest of a backup";
    if (json.at("version") != kVersion) return "has a version that is not known here";
    std::string text(bytes.begin(), bytes.end());
    const std::string sum = json.at("sha256").get<std::string>();
    const size_t place = text.find("\"" + sum + "\"");
    if (sum.size() != kHashDigits || place == std::string::npos) return "has no checksum";
    text.replace(place + 1, kHashDigits, std::string(kHashDigits, '0'));
    if (hashOf(text) != sum) return "has a wrong checksum";
    readInto(json, manifest);
  } catch (const nlohmann::json::exception&) {
    return "is no manifest of a backup";
  }
  return "";
}

}  // namespace vorlix
