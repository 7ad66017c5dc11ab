// SPDX-License-Identifier: Apache-2.0
#include "Identity.h"

#include <Vorlix/QDSDiskFunctions.h>

#include "Arbitration.h"
#include "Failure.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

using GUID = std::array<uint8_t, 16>;

// The look-ups leave a buffer alone when there is nothing to say; no identifier is all zero.
std::optional<GUID> present(const GUID& guid) {
  return guid == GUID{} ? std::nullopt : std::optional<GUID>(guid);
}

std::string wholeDiskOf(const std::string& name) {
  std::array<char, 1024> whole = {};
  disk_from_slice(whole.data(), name.c_str(), 0);
  return whole[0] == '\0' ? name : std::string(whole.data());
}

// A disk that holds no table at all, or one that gives no identifiers because it is damaged.
std::string whyNothing(const Identity& identity) {
  if (identity.diskGUID && (identity.partitionGUID || identity.name == identity.wholeDisk)) return "";
  const std::string table = mediaContentOf(identity.wholeDisk);
  if (table == "FDisk_partition_scheme") return "";
  return table.empty() ? "it has no partition table" : "its partition table gives no identifier";
}

}  // namespace

Identity identify(const std::string& device) {
  Identity result;
  result.name = bsdNameOf(device);
  result.wholeDisk = wholeDiskOf(result.name);
  std::array<char, 1024> medium = {};
  if (media_type(result.name.c_str(), medium.data()) == 0) result.mediumType = medium.data();
  GUID disk = {};
  if (result.name == result.wholeDisk) {
    disk_guid(("/dev/" + result.name).c_str(), disk.data());
    result.diskGUID = present(disk);
    result.nothing = whyNothing(result);
    return result;
  }
  result.partition = partitionForDeviceIdentifier(result.name.c_str());
  GUID partition = {};
  int64_t offset = -1;
  const int found = lookup_disk_info(result.name.c_str(), disk.data(), partition.data(), &offset);
  if (found == 0) result.diskGUID = present(disk);
  result.partitionGUID = present(partition);
  if (offset >= 0) result.offset = offset;
  result.nothing = whyNothing(result);
  return result;
}

std::string rawText(const std::array<uint8_t, 16>& guid) {
  std::string text;
  for (const uint8_t byte : guid) text += (text.empty() ? "" : " ") + hexByte(byte);
  return text;
}

}  // namespace vorlix::tool
