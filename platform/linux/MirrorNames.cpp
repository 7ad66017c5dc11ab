// SPDX-License-Identifier: Apache-2.0
#include "MirrorNames.h"

#include <Vorlix/foundation/Utf8.h>

#include <cstring>
#include <map>
#include <set>

#include "FatNames.h"

namespace vorlix {
namespace {

// Windows reserves the names of devices, with and without an extension.
bool isReserved(const std::string& name) {
  const std::string stem = foldedFatName(name.substr(0, name.find('.')));
  static const std::set<std::string> plain = {"CON", "PRN", "AUX", "NUL", "CLOCK$"};
  if (plain.count(stem) != 0) return true;
  const bool isPort = stem.size() == 4 && (stem.rfind("COM", 0) == 0 || stem.rfind("LPT", 0) == 0);
  return isPort && stem[3] >= '1' && stem[3] <= '9';
}

}  // namespace

Refusal checkFatName(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  const auto refuse = [&](const std::string& why) {
    return Dissenter{kDissentUnsupported, path + " cannot be written to a FAT volume: " + why};
  };
  if (!isUtf8(name)) return refuse("its name is not UTF-8");
  size_t units = 0;
  for (const char character : name) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < 0x20 || byte == 0x7F || std::strchr("\"*/:<>?\\|", character) != nullptr) {
      return refuse("its name has a character that is not allowed there");
    }
    if (byte >= 0xF0) return refuse("its name has a character outside the basic plane");
    if ((byte & 0xC0U) != 0x80U) ++units;
  }
  if (units > kLongestFatName) return refuse("its name is too long");
  if (name.back() == '.' || name.back() == ' ') return refuse("its name ends in a dot or a space");
  if (isReserved(name)) return refuse("its name is that of a device");
  return std::nullopt;
}

Refusal checkFatCase(const MirrorTree& tree) {
  std::map<std::string, std::string> seen;
  for (const auto& [path, entry] : tree) {
    const auto [before, isNew] = seen.emplace(foldedFatName(path), path);
    if (isNew) continue;
    return Dissenter{kDissentUnsupported,
                     path + " and " + before->second + " are the same name on a FAT volume; rename one of them"};
  }
  return std::nullopt;
}

}  // namespace vorlix
