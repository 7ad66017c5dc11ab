// SPDX-License-Identifier: Apache-2.0
#include "RestoreView.h"

#include <utility>

#include "Json.h"
#include "SlotJson.h"

namespace vorlix::tool {
namespace {

Json restoredSlotsJson(const RestorePreparation& prepared) {
  Json slots = Json::array();
  for (size_t i = 0; i < kSlotCount; ++i) {
    slots.append(Json::object({{"slot", i + 1},
                               {"now", slotJson(prepared.mbr.disk.mbr.parts[i])},
                               {"then", slotJson(prepared.mbr.table.parts[i])}}));
  }
  return slots;
}

Json imageJson(const RestorePreparation& prepared) {
  if (!prepared.image) return Json();
  return Json::object({{"number", prepared.image->index}, {"text", imageText(*prepared.image)}});
}

}  // namespace

void printRestorePlanJson(const RestoreRequest& request, const RestorePreparation& prepared) {
  const ImageFacts& facts = prepared.source->facts();
  Json mbr;
  if (request.isLegacy) {
    mbr = Json::object({{"changes", prepared.changesMBR},
                        {"getsBootCode", prepared.mbr.bootCode == BootCodeOrigin::own},
                        {"slots", restoredSlotsJson(prepared)}});
  }
  Json::object({{"version", kJsonVersion},
                {"source", request.source},
                {"kind", facts.description},
                {"fileSystem", knownText(facts.volume ? nameOf(facts.volume->format) : "")},
                {"sourceSize", facts.size},
                {"isVerified", facts.isVerified},
                {"image", imageJson(prepared)},
                {"volume", prepared.volume},
                {"partition", request.partition},
                {"partitionName", prepared.entryName},
                {"volumeSize", prepared.volumeSize},
                {"lost", prepared.present},
                {"efiVolume", knownText(prepared.efiVolume)},
                {"efiObstacle", knownText(prepared.efiObstacle.value_or(""))},
                {"mbr", std::move(mbr)}})
      .print();
}

}  // namespace vorlix::tool
