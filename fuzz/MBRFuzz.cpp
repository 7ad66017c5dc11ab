// SPDX-License-Identifier: Apache-2.0
//
// Reads arbitrary bytes as sector 0, complete or truncated.
#include <Vorlix/PartitionRecords.h>

#include <algorithm>
#include <cstring>

#include "FuzzSupport.h"

namespace {

constexpr uint8_t kUntouched = 0xA5;
constexpr uint32_t kNoneYet = 0xA5A5A5A5;

void checkSlots(const PartitionTable& table, const uint8_t* sector) {
  for (size_t i = 0; i < vorlix::kSlotCount; ++i) {
    const uint8_t* const bytes = sector + vorlix::kBootCodeSize + i * vorlix::kSlotSize;
    const MBRPartitionEntry& slot = table.parts[i];
    FUZZ_CHECK(slot.start_sector <= 63 && slot.end_sector <= 63);
    FUZZ_CHECK(slot.start_track <= 1023 && slot.end_track <= 1023);
    FUZZ_CHECK(slot.flag == bytes[0] && slot.type == bytes[4]);
    FUZZ_CHECK(slot.lba == fuzz::littleEndian(bytes + 8, 4));
    FUZZ_CHECK(slot.size == fuzz::littleEndian(bytes + 12, 4));
  }
  const auto encoded = vorlix::encodeSlots(table.parts);
  FUZZ_CHECK(std::equal(encoded.begin(), encoded.end(), sector + vorlix::kBootCodeSize));
}

void checkActive(uint32_t active, const uint8_t* data, size_t size) {
  uint32_t expected = kNoneYet;
  for (uint32_t i = 0; i < vorlix::kSlotCount; ++i) {
    const size_t flag = vorlix::kBootCodeSize + i * vorlix::kSlotSize;
    if (flag < size && data[flag] == 0x80) expected = i + 1;
  }
  FUZZ_CHECK(active == expected);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  PartitionTable table;
  std::memset(static_cast<void*>(&table), kUntouched, sizeof table);
  uint32_t active = kNoneYet;
  vorlix::decodeMBR({data, size}, table, &active);

  checkActive(active, data, size);
  if (size >= vorlix::kBootCodeSize) {
    FUZZ_CHECK(std::equal(std::begin(table.boot_code), std::end(table.boot_code), data));
  } else {
    FUZZ_CHECK(std::all_of(std::begin(table.boot_code), std::end(table.boot_code),
                           [](uint8_t byte) { return byte == kUntouched; }));
    FUZZ_CHECK(table.parts[0].flag == kUntouched && table.parts[3].size == kNoneYet);
  }
  if (size >= vorlix::kSectorSize) {
    checkSlots(table, data);
    FUZZ_CHECK(table.signature == fuzz::littleEndian(data + 510, 2));
  } else {
    FUZZ_CHECK(table.signature == 0xA5A5);
  }
  return 0;
}
