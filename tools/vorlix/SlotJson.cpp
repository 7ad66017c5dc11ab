// SPDX-License-Identifier: Apache-2.0
#include "SlotJson.h"

#include "Text.h"

namespace vorlix::tool {
namespace {

Json placeJson(unsigned cylinder, unsigned head, unsigned sector) {
  return Json::object({{"cylinder", cylinder}, {"head", head}, {"sector", sector}});
}

}  // namespace

Json slotJson(const MBRPartitionEntry& slot) {
  return Json::object({
      {"active", slot.flag == 0x80},
      {"type", hexByte(slot.type)},
      {"typeName", mbrTypeName(slot.type)},
      {"firstLBA", slot.lba},
      {"sectors", slot.size},
      {"start", placeJson(slot.start_track, slot.start_head, slot.start_sector)},
      {"end", placeJson(slot.end_track, slot.end_head, slot.end_sector)},
  });
}

}  // namespace vorlix::tool
