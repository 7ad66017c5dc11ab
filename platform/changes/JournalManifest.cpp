// SPDX-License-Identifier: Apache-2.0
#include "JournalManifest.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace vorlix {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kFormat = "vorlix journal";
constexpr int kVersion = 2;
constexpr int kVersionWithoutFiles = 1;  // of a journal that an older program left

bool isHash(const std::string& text) {
  return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

Json jsonOf(const JournalDevice& device) {
  const auto& offset = device.identity.offset;
  return {{"name", device.name}, {"disk", device.identity.disk}, {"offset", offset ? Json(*offset) : Json()}};
}

Json jsonOf(const JournalRun& run) {
  return {{"device", run.device}, {"offset", run.offset}, {"length", run.length}, {"place", run.place},
          {"reason", run.reason}, {"before", run.before}, {"after", run.after}};
}

Json textOrNull(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

Json jsonOf(const JournalFile& file) {
  return {{"volume", file.change.volume},
          {"path", file.change.path},
          {"folder", file.change.isFolder},
          {"length", file.length},
          {"place", file.place},
          {"before", textOrNull(file.before)},
          {"after", textOrNull(file.change.after)}};
}

Json jsonOf(const std::optional<JournalContent>& content) {
  if (!content) return {};
  Json json = {{"source", content->source}, {"start", content->start}, {"device", content->device}};
  if (content->image != 0) json["image"] = content->image;
  if (!content->between.empty()) json["between"] = content->between;
  if (!content->backup.empty()) json["backup"] = content->backup;
  return json;
}

template <class Item>
Json jsonOf(const std::vector<Item>& items) {
  Json array = Json::array();
  for (const Item& item : items) array.push_back(jsonOf(item));
  return array;
}

JournalDevice deviceOf(const Json& json) {
  JournalDevice device;
  device.name = json.at("name").get<std::string>();
  device.identity.disk = json.at("disk").get<std::string>();
  if (!json.at("offset").is_null()) device.identity.offset = json.at("offset").get<uint64_t>();
  return device;
}

JournalRun runOf(const Json& json) {
  JournalRun run;
  run.device = json.at("device").get<size_t>();
  run.offset = json.at("offset").get<uint64_t>();
  run.length = json.at("length").get<uint64_t>();
  run.place = json.at("place").get<uint64_t>();
  run.reason = json.at("reason").get<std::string>();
  run.before = json.at("before").get<std::string>();
  run.after = json.at("after").get<std::string>();
  return run;
}

std::string hashOrEmpty(const Json& json) {
  return json.is_null() ? std::string() : json.get<std::string>();
}

JournalFile fileOf(const Json& json) {
  JournalFile file;
  file.change.volume = json.at("volume").get<std::string>();
  file.change.path = json.at("path").get<std::string>();
  file.change.isFolder = json.at("folder").get<bool>();
  file.length = json.at("length").get<uint64_t>();
  file.place = json.at("place").get<uint64_t>();
  file.before = hashOrEmpty(json.at("before"));
  file.change.after = hashOrEmpty(json.at("after"));
  return file;
}

// A path stays on its volume.
bool isSoundPath(const std::string& path) {
  return path.starts_with("/") && path.size() > 1 && (path + "/").find("/../") == std::string::npos;
}

bool isSound(const JournalFile& file) {
  if (!isSoundPath(file.change.path)) return false;
  if (file.change.isFolder) return file.before.empty() && file.change.after.empty();
  return (file.before.empty() || isHash(file.before)) && isHash(file.change.after);
}

}  // namespace

std::string textOfManifest(const JournalManifest& manifest) {
  Json json = {{"format", kFormat},
               {"version", kVersion},
               {"title", manifest.title},
               {"begun", manifest.begun},
               {"kept", manifest.isKept},
               {"devices", jsonOf(manifest.devices)},
               {"runs", jsonOf(manifest.runs)},
               {"files", jsonOf(manifest.files)},
               {"content", jsonOf(manifest.content)}};
  if (!manifest.partOf.empty()) json["partOf"] = manifest.partOf;
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::optional<JournalManifest> parseManifest(const std::string& text, uint64_t longestRun) {
  const Json json = Json::parse(text, nullptr, false);
  JournalManifest manifest;
  try {
    const int version = json.at("version").get<int>();
    if (json.at("format") != kFormat || (version != kVersion && version != kVersionWithoutFiles)) return std::nullopt;
    manifest.title = json.at("title").get<std::string>();
    for (const Json& device : json.at("devices")) manifest.devices.push_back(deviceOf(device));
    for (const Json& item : json.at("runs")) {
      const JournalRun& run = manifest.runs.emplace_back(runOf(item));
      const bool fits = run.device < manifest.devices.size() && run.length <= longestRun;
      if (!fits || !isHash(run.before) || !isHash(run.after)) return std::nullopt;
    }
    if (version == kVersionWithoutFiles) return manifest;
    manifest.begun = json.at("begun").get<std::string>();
    manifest.isKept = json.at("kept").get<bool>();
    manifest.partOf = json.value("partOf", std::string());
    for (const Json& item : json.at("files")) {
      if (!isSound(manifest.files.emplace_back(fileOf(item)))) return std::nullopt;
    }
    if (const Json& content = json.at("content"); !content.is_null()) {
      manifest.content = {content.at("source").get<std::string>(), content.at("start").get<std::string>(),
                          content.at("device").get<size_t>(),      content.value("image", uint32_t{0}),
                          content.value("between", std::string()), content.value("backup", std::string())};
      if (manifest.content->device >= manifest.devices.size()) return std::nullopt;
    }
  } catch (const nlohmann::json::exception&) {
    return std::nullopt;
  }
  return manifest;
}

}  // namespace vorlix
