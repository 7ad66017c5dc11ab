// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/StoreSlots.h>

#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <cstring>

namespace vorlix {
namespace {

constexpr StoreIdentifier P = StoreIdentifier::partition;
constexpr StoreIdentifier D = StoreIdentifier::disk;

constexpr StoreSlot kStandardSlots[] = {{10492, P}, {10740, P}, {5828, D}, {7900, D},
                                        {9372, D},  {10516, D}, {10764, D}};
constexpr StoreSlot kMDTSlots[] = {{8792, P},  {8816, D},  {10200, P}, {10224, D},
                                   {14124, P}, {11908, D}, {11932, D}, {14148, D}};
constexpr StoreSlot kSCCMSlots[] = {{8424, P}, {8448, D}, {9872, P}, {9896, D}, {11660, D}, {19284, D}};

// The size of a hive's base block, and of the pages of its bins, which follow the base block.
constexpr size_t kBaseBlock = 4096;
constexpr size_t kPage = 4096;
constexpr int64_t kBinsSizeOffset = 0x28;
constexpr int64_t kChecksumOffset = 0x1FC;

bool hasTextAt(std::span<const uint8_t> bytes, size_t offset, const char (&text)[5]) {
  return offset + 4 <= bytes.size() && std::memcmp(bytes.data() + offset, text, 4) == 0;
}

// Reads a little-endian number. Outside the bytes it returns a value that none of the checks accepts.
uint32_t wordAt(std::span<const uint8_t> bytes, int64_t offset) {
  if (offset < 0 || static_cast<uint64_t>(offset) + 4 > bytes.size()) return ~uint32_t{0};
  return littleEndian32(bytes.data() + offset);
}

// The XOR of the words before the checksum. The results 0 and ~0 mean "no checksum", so 1 and ~0 - 1 replace them.
uint32_t hiveChecksum(std::span<const uint8_t> hive) {
  uint32_t sum = 0;
  for (int64_t offset = 0; offset < kChecksumOffset; offset += 4) sum ^= wordAt(hive, offset);
  if (sum == ~uint32_t{0}) return sum - 1;
  return sum == 0 ? 1 : sum;
}

// A boot configuration store names a partition by its GUID, followed 24 bytes later by the GUID of its disk. Relative
// to the partition GUID there are a 6 (partition) at -0x10, the length 0x48 at -0x08, and 0 (GPT) or 1 (MBR) at 0x14.
bool isPartitionGUID(std::span<const uint8_t> store, int64_t offset) {
  return wordAt(store, offset - 0x10) == 6 && wordAt(store, offset - 0x08) == 0x48 && wordAt(store, offset + 0x14) <= 1;
}

// The GUID of a disk is 24 bytes behind that of a partition. Some stores also need it in the place of the partition's.
bool looksLikeIdentifier(std::span<const uint8_t> store, const StoreSlot& slot) {
  constexpr int64_t kDiskGUID = 0x18;
  const int64_t offset = slot.offset;
  if (isPartitionGUID(store, offset)) return true;
  return slot.identifier == D && isPartitionGUID(store, offset - kDiskGUID);
}

}  // namespace

std::span<const StoreSlot> storeSlots(int32_t mode) {
  switch (mode) {
    case kStoreModeMDT:
      return kMDTSlots;
    case kStoreModeSCCM:
      return kSCCMSlots;
    default:
      return kStandardSlots;
  }
}

std::vector<uint8_t> storeWithIdentifiers(std::span<const uint8_t> store, int32_t mode,
                                          const StoreIdentifiers& identifiers) {
  std::vector<uint8_t> result(store.begin(), store.end());
  for (const StoreSlot& slot : storeSlots(mode)) {
    const auto& identifier = identifiers.of(slot.identifier);
    if (result.size() < slot.offset + identifier.size()) result.resize(slot.offset + identifier.size());
    std::copy(identifier.begin(), identifier.end(), result.begin() + slot.offset);
  }
  return result;
}

std::optional<std::string> whyNoHive(std::span<const uint8_t> store) {
  if (store.empty()) return "is empty";
  if (!hasTextAt(store, 0, "regf")) return "is no registry hive";
  if (store.size() < kBaseBlock + kPage) return "is a registry hive that is cut off";
  if (wordAt(store, kChecksumOffset) != hiveChecksum(store)) return "is a registry hive with a wrong checksum";
  const uint32_t bins = wordAt(store, kBinsSizeOffset);
  if (bins == 0 || bins % kPage != 0) return "is a registry hive with an impossible size";
  if (bins > store.size() - kBaseBlock) return "is a registry hive that is cut off";
  if (!hasTextAt(store, kBaseBlock, "hbin")) return "is a registry hive without data";
  return std::nullopt;
}

std::vector<uint32_t> oddSlots(std::span<const uint8_t> store, int32_t mode) {
  std::vector<uint32_t> odd;
  for (const StoreSlot& slot : storeSlots(mode)) {
    if (!looksLikeIdentifier(store, slot)) odd.push_back(slot.offset);
  }
  return odd;
}

}  // namespace vorlix
