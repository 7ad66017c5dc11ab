// SPDX-License-Identifier: Apache-2.0
//
// Device elements and listings of boot configuration stores with any content. The first byte chooses.
#include <Vorlix/BootStore.h>
#include <Vorlix/StartFiles.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "FuzzSupport.h"

namespace {

void checkElement(std::span<const uint8_t> element) {
  const vorlix::StorePartition target = vorlix::mbrStorePartition(1 << 20, 0x12345678);
  const std::vector<uint8_t> changed = vorlix::elementWithPartition(element, target);
  FUZZ_CHECK(changed.size() == element.size());
  const std::vector<vorlix::StorePartition> before = vorlix::partitionsOf(element);
  const std::vector<vorlix::StorePartition> after = vorlix::partitionsOf(changed);
  FUZZ_CHECK(after.size() == before.size());
  for (const vorlix::StorePartition& partition : after) FUZZ_CHECK(partition == target);
  FUZZ_CHECK(vorlix::elementWithPartition(changed, target) == changed);
}

void checkListing(std::string_view listing) {
  const auto objects = vorlix::parseStoreListing(listing);
  if (!objects) return;
  vorlix::WindowsStart start;
  for (const vorlix::StoreEdit& edit : vorlix::windowsStoreEdits(*objects, start)) FUZZ_CHECK(!edit.object.empty());
  const std::vector<uint8_t> store(4096);
  vorlix::StoreWithPartitions result;
  const auto refusal = vorlix::setStorePartitions(store, *objects, {}, result);
  FUZZ_CHECK(refusal || result.store.size() == store.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  if (data[0] % 2 == 0) {
    checkElement({data + 1, size - 1});
  } else {
    checkListing({reinterpret_cast<const char*>(data + 1), size - 1});
  }
  return 0;
}
