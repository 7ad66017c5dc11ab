// SPDX-License-Identifier: Apache-2.0
#include "NTFSRecords.h"

#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <cstring>

namespace vorlix {
namespace {

constexpr size_t kFixupStride = 512;
constexpr uint32_t kEndOfAttributes = 0xFFFFFFFF;
constexpr size_t kResidentHeader = 24;
constexpr size_t kRunsHeader = 64;
constexpr uint16_t kRecordInUse = 0x01;

[[noreturn]] void damaged() {
  throw AllocationDoubt("its master file table is damaged");
}

uint64_t field(std::span<const uint8_t> bytes, size_t offset, size_t count) {
  if (offset > bytes.size() || count > bytes.size() - offset) damaged();
  return littleEndian(bytes.data() + offset, count);
}

std::span<const uint8_t> part(std::span<const uint8_t> bytes, uint64_t offset, uint64_t count) {
  if (offset > bytes.size() || count > bytes.size() - offset) damaged();
  return bytes.subspan(offset, count);
}

// A number with a sign in the lowest `count` bytes.
int64_t signedField(std::span<const uint8_t> bytes, size_t offset, size_t count) {
  if (count == 0) return 0;
  const uint64_t value = field(bytes, offset, count);
  const size_t shift = 64 - 8 * count;
  return static_cast<int64_t>(value << shift) >> shift;
}

std::vector<NTFSRun> runsOf(std::span<const uint8_t> pairs, const NTFSGeometry& geometry) {
  std::vector<NTFSRun> runs;
  int64_t cluster = 0;
  for (size_t at = 0; at < pairs.size() && pairs[at] != 0;) {
    const size_t lengthSize = pairs[at] & 15;
    const size_t clusterSize = pairs[at] >> 4;
    if (lengthSize == 0 || lengthSize > 8 || clusterSize > 8) damaged();
    const int64_t count = signedField(pairs, at + 1, lengthSize);
    if (count <= 0 || static_cast<uint64_t>(count) > geometry.clusters) damaged();
    const int64_t step = signedField(pairs, at + 1 + lengthSize, clusterSize);
    if (__builtin_add_overflow(cluster, step, &cluster)) damaged();
    const NTFSRun run{static_cast<uint64_t>(cluster), static_cast<uint64_t>(count), clusterSize == 0};
    const bool isInside =
        cluster >= 0 && run.cluster < geometry.clusters && run.count <= geometry.clusters - run.cluster;
    if (!run.isSparse && !isInside) damaged();
    runs.push_back(run);
    at += 1 + lengthSize + clusterSize;
  }
  return runs;
}

NTFSAttribute attributeOf(std::span<const uint8_t> bytes, const NTFSGeometry& geometry) {
  NTFSAttribute attribute;
  attribute.type = static_cast<uint32_t>(field(bytes, 0, 4));
  attribute.isResident = field(bytes, 8, 1) == 0;
  attribute.flags = static_cast<uint16_t>(field(bytes, 12, 2));
  const uint64_t nameLength = field(bytes, 9, 1);
  const auto name = part(bytes, field(bytes, 10, 2), nameLength * 2);
  for (size_t i = 0; i < nameLength; ++i) attribute.name.push_back(static_cast<char16_t>(field(name, i * 2, 2)));
  if (attribute.isResident) {
    if (bytes.size() < kResidentHeader) damaged();
    const auto value = part(bytes, field(bytes, 20, 2), field(bytes, 16, 4));
    attribute.value.assign(value.begin(), value.end());
    attribute.size = attribute.initialized = value.size();
    return attribute;
  }
  if (bytes.size() < kRunsHeader || field(bytes, 16, 8) != 0) damaged();  // a record of its own begins with its start
  attribute.size = field(bytes, 48, 8);
  attribute.initialized = field(bytes, 56, 8);
  const uint64_t runs = field(bytes, 32, 2);
  if (runs > bytes.size()) damaged();
  attribute.runs = runsOf(bytes.subspan(runs), geometry);
  return attribute;
}

}  // namespace

void undoFixups(std::span<uint8_t> record, const char* magic) {
  if (record.size() < kFixupStride || std::memcmp(record.data(), magic, 4) != 0) damaged();
  const uint64_t array = field(record, 4, 2);
  const uint64_t count = field(record, 6, 2);  // the sequence number and one for each run
  if (count != record.size() / kFixupStride + 1) damaged();
  const std::span<const uint8_t> saved = part(record, array, count * 2);
  if (array + count * 2 > kFixupStride - 2) damaged();
  for (size_t i = 1; i < count; ++i) {
    uint8_t* const end = record.data() + i * kFixupStride - 2;
    if (std::memcmp(end, saved.data(), 2) != 0) damaged();  // the record was written in part
    std::memcpy(end, saved.data() + i * 2, 2);
  }
}

NTFSRecord::NTFSRecord(std::vector<uint8_t> bytes, const NTFSGeometry& geometry) {
  undoFixups(bytes, "FILE");
  if ((field(bytes, 22, 2) & kRecordInUse) == 0) damaged();
  const uint64_t used = field(bytes, 24, 4);
  if (used > bytes.size()) damaged();
  const std::span<const uint8_t> record(bytes.data(), used);
  for (uint64_t at = field(record, 20, 2); field(record, at, 4) != kEndOfAttributes;) {
    const uint64_t size = field(record, at + 4, 4);
    if (size < 16 || size % 8 != 0) damaged();
    attributes_.push_back(attributeOf(part(record, at, size), geometry));
    at += size;
  }
}

const NTFSAttribute* NTFSRecord::find(uint32_t type, const std::u16string& name) const {
  const auto found = std::find_if(attributes_.begin(), attributes_.end(), [&](const NTFSAttribute& attribute) {
    return attribute.type == type && attribute.name == name;
  });
  return found == attributes_.end() ? nullptr : &*found;
}

void readContent(const VolumeBytes& volume, const NTFSGeometry& geometry, const NTFSAttribute& attribute,
                 uint64_t offset, std::span<uint8_t> bytes) {
  uint64_t start = 0;  // of the run in the attribute
  for (const NTFSRun& run : attribute.runs) {
    const uint64_t size = run.count * geometry.clusterSize;
    if (bytes.empty()) return;
    if (offset < start + size) {
      const size_t count = static_cast<size_t>(std::min<uint64_t>(bytes.size(), start + size - offset));
      const uint64_t written = offset < attribute.initialized ? attribute.initialized - offset : 0;
      const size_t real = run.isSparse ? 0 : static_cast<size_t>(std::min<uint64_t>(count, written));
      volume.read(run.cluster * geometry.clusterSize + (offset - start), bytes.first(real));
      std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(real), bytes.begin() + static_cast<std::ptrdiff_t>(count),
                uint8_t{0});
      bytes = bytes.subspan(count);
      offset += count;
    }
    start += size;
  }
  if (!bytes.empty()) damaged();
}

}  // namespace vorlix
