// SPDX-License-Identifier: Apache-2.0
//
// Writes and reads archives of records for tests in other languages.
//
//     archive_probe encode FILE [copy]   a volume record from JSON on standard input, or a copy of it
//     archive_probe encode-info FILE     a disk record from JSON on standard input
//     archive_probe decode FILE          JSON of the volume record on standard output; status 1 if there is none
//
// JSON: an absent field is omitted; bytes are {"hex": "..."}; styled text is a list of {"text": ..., "attributes":
// {name: text | number | boolean | {"hex": ...} | {"uuid": ...} | {"path": ...} | {...}}}.
#include <Vorlix/QDDiskInfo.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/platform/DiskArbitration.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "FilledVolume.h"

namespace {

using JSON = nlohmann::json;
using volume_test::flags;
using volume_test::texts;
using volume_test::uuids;

std::string hexadecimal(const vorlix::Data& bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (const uint8_t byte : bytes) text += {kDigits[byte >> 4], kDigits[byte & 15]};
  return text;
}

vorlix::Data bytesOf(const std::string& hex) {
  vorlix::Data bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

vorlix::Dictionary dictionaryOf(const JSON& json);

vorlix::Value valueOf(const JSON& json) {
  if (json.is_boolean()) return json.get<bool>();
  if (json.is_number_integer()) return json.get<int64_t>();
  if (json.is_number_float()) return json.get<double>();
  if (json.is_string()) return json.get<std::string>();
  if (json.is_array()) {
    auto list = std::make_shared<vorlix::Array>();
    for (const JSON& element : json) list->values.push_back(valueOf(element));
    return list;
  }
  if (json.contains("hex")) return bytesOf(json["hex"]);
  if (json.contains("uuid")) return vorlix::UUID::fromText(json["uuid"].get<std::string>()).value();
  if (json.contains("path")) return vorlix::URL::fileURLWithPath(json["path"]);
  return std::make_shared<const vorlix::Dictionary>(dictionaryOf(json));
}

vorlix::Dictionary dictionaryOf(const JSON& json) {
  vorlix::Dictionary dictionary;
  for (const auto& [key, value] : json.items()) dictionary.set(key, valueOf(value));
  return dictionary;
}

JSON jsonOf(const vorlix::Dictionary& dictionary);

struct ValueToJSON {
  JSON operator()(bool value) const { return value; }
  JSON operator()(int64_t value) const { return value; }
  JSON operator()(double value) const { return value; }
  JSON operator()(const std::string& value) const { return value; }
  JSON operator()(const vorlix::Data& value) const { return {{"hex", hexadecimal(value)}}; }
  JSON operator()(const vorlix::UUID& value) const { return {{"uuid", value.text()}}; }
  JSON operator()(const vorlix::URL& value) const { return {{"path", value.path()}}; }
  JSON operator()(const std::shared_ptr<const vorlix::Dictionary>& value) const { return jsonOf(*value); }
  JSON operator()(const std::shared_ptr<const vorlix::Array>& value) const {
    JSON json = JSON::array();
    for (const vorlix::Value& element : value->values) json.push_back(std::visit(*this, element));
    return json;
  }
};

JSON jsonOf(const vorlix::Dictionary& dictionary) {
  JSON json = JSON::object();
  for (const auto& [key, value] : dictionary.values()) json[key] = std::visit(ValueToJSON(), value);
  return json;
}

std::shared_ptr<QDVolume> recordOf(const JSON& json) {
  auto volume = QDVolume::init();
  volume->setMbr(nullptr);
  for (const auto& [name, value] : json.items()) {
    bool known = false;
    for (const auto& field : texts()) {
      if (name == field.name) ((*volume).*field.set)(value.get<std::string>()), known = true;
    }
    for (const auto& field : flags()) {
      if (name == field.name) ((*volume).*field.set)(value.get<bool>()), known = true;
    }
    for (const auto& field : uuids()) {
      if (name == field.name) {
        ((*volume).*field.set)(vorlix::UUID::fromText(value.get<std::string>()).value());
        known = true;
      }
    }
    if (name == "mbr") {
      volume->setMbr(std::make_shared<vorlix::Data>(bytesOf(value["hex"])));
    } else if (name == "partitionID") {
      volume->setPartitionID(std::make_shared<std::string>(value));
    } else if (name == "info") {
      volume->setInfo(std::make_shared<std::string>(value));
    } else if (name == "usageDescription") {
      vorlix::AttributedString styled;
      for (const JSON& run : value) styled.append(run["text"], dictionaryOf(run["attributes"]));
      volume->setUsageDescription(styled);
    } else if (!known) {
      throw std::invalid_argument(name + ": no such field");
    }
  }
  return volume;
}

JSON jsonOf(const QDVolume& volume) {
  JSON json;
  for (const auto& field : texts()) {
    if (const auto text = (volume.*field.get)()) json[field.name] = *text;
  }
  for (const auto& field : flags()) json[field.name] = (volume.*field.get)();
  for (const auto& field : uuids()) {
    if (const auto uuid = (volume.*field.get)()) json[field.name] = uuid->text();
  }
  if (const auto bytes = volume.mbr()) json["mbr"] = {{"hex", hexadecimal(*bytes)}};
  if (const auto text = volume.partitionID()) json["partitionID"] = *text;
  if (const auto text = volume.info()) json["info"] = *text;
  if (const auto styled = volume.usageDescription()) {
    json["usageDescription"] = {{"text", styled->string()}, {"runs", JSON::array()}};
    for (const auto& run : styled->runs()) {
      json["usageDescription"]["runs"].push_back(
          {{"location", run.location}, {"length", run.length}, {"attributes", jsonOf(*run.attributes)}});
    }
  }
  json["filesystemSize"] = volume.filesystemSize();
  return json;
}

std::shared_ptr<QDDiskInfo> infoOf(const JSON& json) {
  const std::pair<const char*, const char*> keys[] = {
      {VolumeKindKey, vorlix::kDescriptionVolumeKind}, {VolumeMountableKey, vorlix::kDescriptionVolumeMountable},
      {VolumeNameKey, vorlix::kDescriptionVolumeName}, {VolumePathKey, vorlix::kDescriptionVolumePath},
      {VolumeTypeKey, vorlix::kDescriptionVolumeType}, {VolumeUUIDKey, vorlix::kDescriptionVolumeUUID},
  };
  vorlix::Dictionary description;
  for (const auto& [name, key] : keys) {
    if (json.contains(name)) description.set(key, valueOf(json[name]));
  }
  return QDDiskInfo::initWithDiskArbitrationInfo(description);
}

int encode(const std::string& path, const std::shared_ptr<const vorlix::Coding>& record) {
  const vorlix::Data archive = vorlix::KeyedArchiver::archivedDataWithRootObject(record);
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(archive.data()), static_cast<std::streamsize>(archive.size()));
  file.close();
  if (!file) throw std::runtime_error(path + ": cannot be written");
  return 0;
}

int decode(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error(path + ": cannot be read");
  const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const auto volume = vorlix::KeyedUnarchiver::unarchivedObject<QDVolume>(vorlix::Data(bytes.begin(), bytes.end()));
  if (!volume) return 1;
  std::cout << jsonOf(*volume).dump(2) << '\n';
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::string command = argc > 2 ? argv[1] : "";
  if (command == "encode") {
    const std::shared_ptr<QDVolume> volume = recordOf(JSON::parse(std::cin));
    return encode(argv[2], argc > 3 && std::string(argv[3]) == "copy" ? volume->copyWithZone() : volume);
  }
  if (command == "encode-info") return encode(argv[2], infoOf(JSON::parse(std::cin)));
  if (command == "decode") return decode(argv[2]);
  throw std::invalid_argument(
      "archive_probe encode FILE [copy] | archive_probe encode-info FILE | archive_probe decode FILE");
} catch (const std::exception& error) {
  std::cerr << error.what() << '\n';
  return 2;
}
