// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/BootSectors.h>

#include <Vorlix/foundation/LittleEndian.h>

#include <algorithm>
#include <cstring>

#include "foundation/Zeros.h"

namespace vorlix {
namespace {

constexpr size_t kSignatureOffset = 510;
constexpr size_t kTypeOffset = 4;  // in a slot

constexpr size_t kBytesPerSectorOffset = 11;
constexpr size_t kNTFSSectorCountOffset = 40;
constexpr size_t kNTFSBootCodeOffset = 84;
constexpr size_t kSecondSectorOffset = 50;  // FAT32
constexpr size_t kFAT32TypeOffset = 82;
constexpr size_t kFAT16TypeOffset = 54;
constexpr size_t kFAT32BootCodeOffset = 90;
constexpr size_t kFAT16BootCodeOffset = 62;

// The byte before the serial of a FAT volume shows whether there is a serial: 0x28 for a serial alone, 0x29 for a
// serial that is followed by label and type.
constexpr uint8_t kHasSerialAlone = 0x28;
constexpr uint8_t kHasSerial = 0x29;
constexpr Field kFAT32Serial = {67, 4};
constexpr Field kFAT16Serial = {39, 4};

std::ptrdiff_t at(size_t offset) {
  return static_cast<std::ptrdiff_t>(offset);
}

bool holds(const Sector& sector, size_t offset, const char* text) {
  return std::memcmp(sector.data() + offset, text, std::strlen(text)) == 0;
}

bool hasSignature(const Sector& sector) {
  return littleEndian(sector, kSignatureOffset, 2) == kMBRSignature;
}

bool isFAT32(const Sector& sector) {
  return holds(sector, kFAT32TypeOffset, "FAT32");
}

bool equalFrom(const Sector& one, const Sector& other, size_t first, size_t last) {
  return std::equal(one.begin() + at(first), one.begin() + at(last), other.begin() + at(first));
}

bool isBytesPerSector(uint64_t value) {
  return value == 512 || value == 1024 || value == 2048 || value == 4096;
}

}  // namespace

Sector makeSector0(Bytes bootCode, const MBRPartitionEntry (&parts)[kSlotCount], uint16_t signature) {
  Sector sector = {};
  std::copy_n(bootCode.begin(), std::min(bootCode.size(), kBootCodeSize), sector.begin());
  const auto slots = encodeSlots(parts);
  std::copy(slots.begin(), slots.end(), sector.begin() + at(kBootCodeSize));
  putLittleEndian(sector.data() + kSignatureOffset, 2, signature);
  return sector;
}

std::string Sector0Difference::text() const {
  const bool isOne = slots.size() + (bootCode ? 1 : 0) + (signature ? 1 : 0) == 1;
  return names() + (isOne ? " differs" : " differ");
}

std::string Sector0Difference::pastText() const {
  return names() + " differed";
}

std::string Sector0Difference::names() const {
  std::string text;
  for (const uint32_t slot : slots) text += (text.empty() ? "slot " : ", ") + std::to_string(slot);
  if (bootCode) text += text.empty() ? "boot code" : " and boot code";
  if (signature) text += text.empty() ? "the 55 AA signature" : " and the 55 AA signature";
  return text;
}

Sector0Difference compareSector0(const Sector& now, const Sector& wanted) {
  Sector0Difference difference;
  for (uint32_t i = 0; i < kSlotCount; ++i) {
    const size_t slot = kBootCodeSize + i * kSlotSize;
    if (!equalFrom(now, wanted, slot, slot + kSlotSize)) difference.slots.push_back(i + 1);
  }
  difference.bootCode = !equalFrom(now, wanted, 0, kPureBootCodeSize);
  difference.signature = !equalFrom(now, wanted, kSignatureOffset, kSectorSize);
  return difference;
}

Sector renewedSector0(const Sector& now, const Sector& wanted) {
  Sector sector = wanted;
  if (compareSector0(now, wanted).slots.empty()) {
    std::copy(now.begin() + at(kPureBootCodeSize), now.begin() + at(kBootCodeSize),
              sector.begin() + at(kPureBootCodeSize));
  }
  return sector;
}

BootSectorKind kindOf(const Sector& bootSector) {
  if (holds(bootSector, 3, "NTFS    ")) return BootSectorKind::ntfs;
  if (hasSignature(bootSector) && (isFAT32(bootSector) || holds(bootSector, kFAT16TypeOffset, "FAT"))) {
    return BootSectorKind::fat;
  }
  return areZeros(bootSector) ? BootSectorKind::empty : BootSectorKind::other;
}

MBRKind mbrKindOf(const Sector& sector0) {
  if (!hasSignature(sector0)) return MBRKind::none;
  const BootSectorKind kind = kindOf(sector0);
  if (kind == BootSectorKind::ntfs || kind == BootSectorKind::fat || holds(sector0, 3, "EXFAT   "))
    return MBRKind::volume;
  size_t protective = 0;
  size_t used = 0;
  for (size_t i = 0; i < kSlotCount; ++i) {
    const uint8_t type = sector0[kBootCodeSize + i * kSlotSize + kTypeOffset];
    protective += type == kProtectiveType ? 1 : 0;
    used += type != 0 ? 1 : 0;
  }
  if (protective == 0) return MBRKind::dos;
  return used == 1 ? MBRKind::protectsOnly : MBRKind::hybrid;
}

uint32_t hiddenSectors(const Sector& bootSector) {
  return static_cast<uint32_t>(littleEndian(bootSector, kHiddenSectorsOffset, 4));
}

std::array<uint8_t, 4> hiddenSectorsBytes(uint32_t start) {
  std::array<uint8_t, 4> bytes;
  putLittleEndian(bytes.data(), bytes.size(), start);
  return bytes;
}

Field serialField(const Sector& bootSector) {
  const BootSectorKind kind = kindOf(bootSector);
  if (kind == BootSectorKind::ntfs) return {kNTFSSerialOffset, sizeof(Serial)};
  if (kind != BootSectorKind::fat) return {};
  const Field serial = isFAT32(bootSector) ? kFAT32Serial : kFAT16Serial;
  const uint8_t mark = bootSector[serial.offset - 1];
  return mark == kHasSerial || mark == kHasSerialAlone ? serial : Field{};
}

Field bootCodeField(const Sector& bootSector) {
  const BootSectorKind kind = kindOf(bootSector);
  size_t offset = kSignatureOffset;
  if (kind == BootSectorKind::ntfs) offset = kNTFSBootCodeOffset;
  if (kind == BootSectorKind::fat) offset = isFAT32(bootSector) ? kFAT32BootCodeOffset : kFAT16BootCodeOffset;
  return {offset, kSignatureOffset - offset};
}

bool lacksBootCode(const Sector& bootSector) {
  const Field code = bootCodeField(bootSector);
  return areZeros(std::span(bootSector).subspan(code.offset, code.size));
}

bool onlyPrintsMessage(const Sector& bootSector) {
  constexpr uint8_t kShortJump = 0xEB;
  constexpr size_t kTextPlace = 3;  // low half of the text's address, which lies behind the code
  constexpr uint8_t kMessageCode[] = {
      0x0E, 0x1F,                    // push cs; pop ds
      0xBE, 0x00, 0x7C,              // mov si, text
      0xAC, 0x22, 0xC0, 0x74, 0x0B,  // next: lodsb; and al, al; jz done
      0x56, 0xB4, 0x0E,              // push si; mov ah, 0Eh
      0xBB, 0x07, 0x00, 0xCD, 0x10,  // mov bx, 7; int 10h
      0x5E, 0xEB, 0xF0,              // pop si; jmp next
      0x32, 0xE4, 0xCD, 0x16,        // done: xor ah, ah; int 16h
      0xCD, 0x19, 0xEB, 0xFE         // int 19h; jmp $
  };
  const size_t start = size_t{2} + bootSector[1];
  if (bootSector[0] != kShortJump || start + sizeof kMessageCode > kSignatureOffset) return false;
  for (size_t i = 0; i < sizeof kMessageCode; ++i) {
    if (i != kTextPlace && bootSector[start + i] != kMessageCode[i]) return false;
  }
  return true;
}

Sector patchedBootSector(const Sector& bootSector, uint32_t start, const Serial& serial) {
  const BootSectorKind kind = kindOf(bootSector);
  if (kind != BootSectorKind::ntfs && kind != BootSectorKind::fat) return bootSector;
  Sector sector = bootSector;
  const auto hidden = hiddenSectorsBytes(start);
  std::copy(hidden.begin(), hidden.end(), sector.begin() + at(kHiddenSectorsOffset));
  const Field field = serialField(bootSector);
  std::copy_n(serial.begin(), field.size, sector.begin() + at(field.offset));
  return sector;
}

bool isCopyButForPatch(const Sector& first, const Sector& second) {
  return patchedBootSector(first, 0, {}) == patchedBootSector(second, 0, {});
}

std::vector<uint64_t> secondBootSectorPlaces(const Sector& bootSector, uint64_t size) {
  const BootSectorKind kind = kindOf(bootSector);
  const uint64_t bytesPerSector = littleEndian(bootSector, kBytesPerSectorOffset, 2);
  std::vector<uint64_t> places;
  if (!isBytesPerSector(bytesPerSector) || size < bytesPerSector) return places;
  const uint64_t last = size / bytesPerSector - 1;
  const auto add = [&](uint64_t sector) {
    if (sector == 0 || sector > last) return;
    const uint64_t place = sector * bytesPerSector;
    if (std::find(places.begin(), places.end(), place) == places.end()) places.push_back(place);
  };
  if (kind == BootSectorKind::ntfs) {
    add(last);
    add(littleEndian(bootSector, kNTFSSectorCountOffset, 8));
  } else if (kind == BootSectorKind::fat && isFAT32(bootSector)) {
    constexpr uint64_t kNone = 0xFFFF;
    const uint64_t sector = littleEndian(bootSector, kSecondSectorOffset, 2);
    if (sector != kNone) add(sector);
  }
  return places;
}

}  // namespace vorlix
