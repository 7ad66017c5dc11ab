// SPDX-License-Identifier: Apache-2.0
//
// Sector 0 and boot sectors as bytes. The offsets of fields are those that mkntfs and mkfs.vfat write.
#include <Vorlix/BootSectors.h>
#include <gmock/gmock.h>

#include <cstring>

#include "tests/unit/support/DiskBytes.h"

namespace vorlix::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Serial kSerial = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7};

void set(Sector& sector, size_t offset, const ByteVector& bytes) {
  std::copy(bytes.begin(), bytes.end(), sector.begin() + static_cast<std::ptrdiff_t>(offset));
}
void set(Sector& sector, size_t offset, const char* text) {
  std::memcpy(sector.data() + offset, text, std::strlen(text));
}

Sector filled(uint8_t byte) {
  Sector sector;
  sector.fill(byte);
  set(sector, 510, {0x55, 0xAA});
  return sector;
}

// 512 bytes per sector. The volume ends one sector before its partition, which has 0x2000 sectors.
Sector ntfs() {
  Sector sector = filled(0x3C);
  set(sector, 0, {0xEB, 0x52, 0x90});
  set(sector, 3, "NTFS    ");
  set(sector, 11, {0x00, 0x02});
  set(sector, 40, {0xFF, 0x1F, 0, 0, 0, 0, 0, 0});
  return sector;
}

Sector fat32() {
  Sector sector = filled(0x3C);
  set(sector, 11, {0x00, 0x02});
  set(sector, 50, {6, 0});
  set(sector, 66, {0x29});
  set(sector, 82, "FAT32   ");
  return sector;
}

Sector fat16() {
  Sector sector = filled(0x3C);
  set(sector, 11, {0x00, 0x02});
  set(sector, 38, {0x29});
  set(sector, 54, "FAT16   ");
  return sector;
}

// Returns the differences between two sectors as pairs of an offset and the new byte.
std::vector<std::pair<size_t, int>> changes(const Sector& before, const Sector& after) {
  std::vector<std::pair<size_t, int>> result;
  for (size_t i = 0; i < before.size(); ++i) {
    if (before[i] != after[i]) result.emplace_back(i, after[i]);
  }
  return result;
}

using At = std::pair<size_t, int>;

// ----------------------------------------------------------------------------------------------------------- sector 0

TEST(Sector0, HasBootCodeSlotsAndSignature) {
  PartitionTable table = {};
  table.parts[0] = {0x80, 0, 2, 0, 0xEE, 127, 14, 25, 1, 409639};
  const ByteVector code(446, 0x90);
  const Sector sector = makeSector0(code, table.parts);
  EXPECT_THAT(ByteVector(sector.begin(), sector.begin() + 446), testing::Each(0x90));
  EXPECT_THAT(ByteVector(sector.begin() + 446, sector.begin() + 462),
              ElementsAre(0x80, 0x00, 0x02, 0x00, 0xEE, 0x7F, 0x0E, 0x19, 1, 0, 0, 0, 0x27, 0x40, 0x06, 0x00));
  EXPECT_THAT(ByteVector(sector.begin() + 462, sector.begin() + 510), testing::Each(0));
  EXPECT_EQ(sector[510], 0x55);
  EXPECT_EQ(sector[511], 0xAA);
}

TEST(Sector0, BootCodeIsTruncatedOrPadded) {
  const PartitionTable table = {};
  const Sector cut = makeSector0(ByteVector(512, 0x90), table.parts);
  EXPECT_EQ(cut[445], 0x90);
  EXPECT_EQ(cut[446], 0);
  const Sector short_ = makeSector0(ByteVector(440, 0x90), table.parts);
  EXPECT_EQ(short_[439], 0x90);
  EXPECT_EQ(short_[440], 0);
}

TEST(Sector0, DifferencesAreReported) {
  const Sector now = filled(0x10);
  EXPECT_FALSE(compareSector0(now, now).any());
  Sector wanted = now;
  wanted[461] ^= 1;
  wanted[509] ^= 1;
  EXPECT_THAT(compareSector0(now, wanted).slots, ElementsAre(1U, 4U));
  EXPECT_EQ(compareSector0(now, wanted).text(), "slot 1, 4 differ");
  wanted[439] ^= 1;
  EXPECT_EQ(compareSector0(now, wanted).text(), "slot 1, 4 and boot code differ");
  EXPECT_EQ(compareSector0(now, wanted).pastText(), "slot 1, 4 and boot code differed");
  Sector other = now;
  other[440] ^= 1;
  EXPECT_FALSE(compareSector0(now, other).any());  // only the disk signature differs
  other[0] ^= 1;
  EXPECT_EQ(compareSector0(now, other).text(), "boot code differs");
  Sector unsignedOne = now;
  unsignedOne[511] = 0;
  EXPECT_EQ(compareSector0(unsignedOne, now).text(), "the 55 AA signature differs");
}

TEST(Sector0, KeepsTheDiskSignatureIfTheSlotsAreUnchanged) {
  const Sector now = filled(0x10);
  Sector wanted = filled(0x20);
  EXPECT_EQ(renewedSector0(now, wanted), wanted);
  std::copy(now.begin() + 446, now.end(), wanted.begin() + 446);
  const Sector renewed = renewedSector0(now, wanted);
  EXPECT_EQ(renewed[439], 0x20);
  EXPECT_THAT(ByteVector(renewed.begin() + 440, renewed.begin() + 510), testing::Each(0x10));
}

TEST(Sector0, KindsOfMBR) {
  Sector sector = {};
  EXPECT_EQ(mbrKindOf(sector), MBRKind::none);
  set(sector, 510, {0x55, 0xAA});
  EXPECT_EQ(mbrKindOf(sector), MBRKind::dos);
  sector[446 + 16 + 4] = 0x07;
  EXPECT_EQ(mbrKindOf(sector), MBRKind::dos);
  sector[446 + 4] = 0xEE;
  EXPECT_EQ(mbrKindOf(sector), MBRKind::hybrid);
  sector[446 + 16 + 4] = 0;
  EXPECT_EQ(mbrKindOf(sector), MBRKind::protectsOnly);
  EXPECT_EQ(mbrKindOf(ntfs()), MBRKind::volume);
  EXPECT_EQ(mbrKindOf(fat32()), MBRKind::volume);
  set(sector, 3, "EXFAT   ");  // has zeros where an MBR has slots
  EXPECT_EQ(mbrKindOf(sector), MBRKind::volume);
}

// ------------------------------------------------------------------------------------------------------- boot sectors

TEST(BootSectors, Kinds) {
  EXPECT_EQ(kindOf(ntfs()), BootSectorKind::ntfs);
  EXPECT_EQ(kindOf(fat32()), BootSectorKind::fat);
  EXPECT_EQ(kindOf(fat16()), BootSectorKind::fat);
  EXPECT_EQ(kindOf({}), BootSectorKind::empty);
  EXPECT_EQ(kindOf(filled(1)), BootSectorKind::other);
}

TEST(BootSectors, PatchOfNTFS) {
  const Sector before = ntfs();
  EXPECT_THAT(changes(before, patchedBootSector(before, 0x12345678, kSerial)),
              ElementsAre(At{28, 0x78}, At{29, 0x56}, At{30, 0x34}, At{31, 0x12}, At{72, 0xA0}, At{73, 0xA1},
                          At{74, 0xA2}, At{75, 0xA3}, At{76, 0xA4}, At{77, 0xA5}, At{78, 0xA6}, At{79, 0xA7}));
  EXPECT_EQ(hiddenSectors(patchedBootSector(before, 0x12345678, kSerial)), 0x12345678U);
}

TEST(BootSectors, PatchOfFATLeavesLabelAndBootCodeAlone) {
  EXPECT_THAT(changes(fat32(), patchedBootSector(fat32(), 0x12345678, kSerial)),
              ElementsAre(At{28, 0x78}, At{29, 0x56}, At{30, 0x34}, At{31, 0x12}, At{67, 0xA0}, At{68, 0xA1},
                          At{69, 0xA2}, At{70, 0xA3}));
  EXPECT_THAT(changes(fat16(), patchedBootSector(fat16(), 0x12345678, kSerial)),
              ElementsAre(At{28, 0x78}, At{29, 0x56}, At{30, 0x34}, At{31, 0x12}, At{39, 0xA0}, At{40, 0xA1},
                          At{41, 0xA2}, At{42, 0xA3}));
  Sector old = fat16();
  old[38] = 0;  // before DOS 4 there was no serial number
  EXPECT_EQ(changes(old, patchedBootSector(old, 0x12345678, kSerial)).size(), 4U);
}

TEST(BootSectors, OtherVolumesAreNotPatched) {
  const Sector other = filled(0x3C);
  EXPECT_EQ(patchedBootSector(other, 1, kSerial), other);
}

TEST(BootSectors, ACopyMayDifferOnlyInThePatchedFields) {
  Sector copy = patchedBootSector(ntfs(), 77, kSerial);
  EXPECT_TRUE(isCopyButForPatch(ntfs(), copy));
  copy[80] ^= 1;
  EXPECT_FALSE(isCopyButForPatch(ntfs(), copy));
  EXPECT_FALSE(isCopyButForPatch(ntfs(), filled(0x3C)));
  EXPECT_FALSE(isCopyButForPatch(ntfs(), {}));
}

// The code that mkntfs and mkfs.fat write, as a disassembler shows it; the text follows it.
constexpr uint8_t kMessageCode[] = {0x0E, 0x1F,                          // push cs; pop ds
                                    0xBE, 0x71, 0x7C,                    // mov si, 7C71h
                                    0xAC, 0x22, 0xC0, 0x74, 0x0B,        // lodsb; and al, al; jz +11
                                    0x56, 0xB4, 0x0E, 0xBB, 0x07, 0x00,  // push si; mov ah, 14; mov bx, 7
                                    0xCD, 0x10, 0x5E, 0xEB, 0xF0,        // int 10h; pop si; jmp -16
                                    0x32, 0xE4, 0xCD, 0x16, 0xCD, 0x19,  // xor ah, ah; int 16h; int 19h
                                    0xEB, 0xFE};                         // jmp $
constexpr const char* kMessage = "This is not a bootable disk. Please insert a bootable floppy and\r\npress any key";

Sector withMessageCode(Sector sector, size_t place) {
  sector[0] = 0xEB;
  sector[1] = static_cast<uint8_t>(place - 2);
  sector[2] = 0x90;
  std::fill(sector.begin() + static_cast<std::ptrdiff_t>(place), sector.begin() + 510, uint8_t{0});
  std::copy(std::begin(kMessageCode), std::end(kMessageCode), sector.begin() + static_cast<std::ptrdiff_t>(place));
  sector[place + 3] = static_cast<uint8_t>(place + sizeof kMessageCode);
  std::memcpy(sector.data() + place + sizeof kMessageCode, kMessage, std::strlen(kMessage));
  return sector;
}

TEST(BootSectors, CodeThatOnlyPrintsAMessage) {
  EXPECT_TRUE(onlyPrintsMessage(withMessageCode(ntfs(), 84)));
  EXPECT_TRUE(onlyPrintsMessage(withMessageCode(fat32(), 90)));
  EXPECT_TRUE(onlyPrintsMessage(withMessageCode(fat16(), 62)));
  Sector other = withMessageCode(ntfs(), 84);
  std::fill(other.begin() + 84 + sizeof kMessageCode, other.begin() + 510, uint8_t{'x'});
  EXPECT_TRUE(onlyPrintsMessage(other));  // mkfs.fat -m writes another text
}

TEST(BootSectors, OtherCodeDoesNotOnlyPrintAMessage) {
  EXPECT_FALSE(onlyPrintsMessage(ntfs()));
  EXPECT_FALSE(onlyPrintsMessage({}));
  const Sector message = withMessageCode(ntfs(), 84);
  for (size_t i = 0; i < sizeof kMessageCode; ++i) {
    if (i == 3) continue;  // where the text is
    Sector changed = message;
    changed[84 + i] ^= 1;
    EXPECT_FALSE(onlyPrintsMessage(changed)) << i;
  }
  Sector elsewhere = message;  // the code is there, but something else runs
  elsewhere[1] = 0x60;
  EXPECT_FALSE(onlyPrintsMessage(elsewhere));
  elsewhere = message;
  elsewhere[0] = 0xE9;
  EXPECT_FALSE(onlyPrintsMessage(elsewhere));
  elsewhere[0] = 0xEB;
  elsewhere[1] = 0xFF;
  EXPECT_FALSE(onlyPrintsMessage(elsewhere));
  // Code of another kind with the same text, as a loader has it for the case that it finds nothing.
  Sector loader = ntfs();
  std::memcpy(loader.data() + 300, kMessage, std::strlen(kMessage));
  EXPECT_FALSE(onlyPrintsMessage(loader));
}

TEST(BootSectors, BootCode) {
  Sector sector = ntfs();
  EXPECT_FALSE(lacksBootCode(sector));
  std::fill(sector.begin() + 84, sector.begin() + 510, uint8_t{0});
  EXPECT_TRUE(lacksBootCode(sector));
  sector[509] = 1;
  EXPECT_FALSE(lacksBootCode(sector));
  Sector fat = fat32();
  std::fill(fat.begin() + 90, fat.begin() + 510, uint8_t{0});
  EXPECT_TRUE(lacksBootCode(fat));
  Sector small = fat16();
  std::fill(small.begin() + 62, small.begin() + 510, uint8_t{0});
  EXPECT_TRUE(lacksBootCode(small));
  small[62] = 1;
  EXPECT_FALSE(lacksBootCode(small));
}

TEST(BootSectors, NTFSKeepsItsSecondOneInTheLastSector) {
  EXPECT_THAT(secondBootSectorPlaces(ntfs(), 0x2000 * 512), ElementsAre(0x1FFFU * 512));
  // A volume that ends before its partition also has one after its own last sector.
  EXPECT_THAT(secondBootSectorPlaces(ntfs(), 0x3000 * 512), ElementsAre(0x2FFFU * 512, 0x1FFFU * 512));
  // Nothing outside the slice, and never the first sector.
  EXPECT_THAT(secondBootSectorPlaces(ntfs(), 0x1000 * 512), ElementsAre(0xFFFU * 512));
  EXPECT_THAT(secondBootSectorPlaces(ntfs(), 512), IsEmpty());
  EXPECT_THAT(secondBootSectorPlaces(ntfs(), 0), IsEmpty());
  Sector big = ntfs();
  set(big, 11, {0x00, 0x10});
  set(big, 40, {0xFF, 0x03, 0, 0, 0, 0, 0, 0});
  EXPECT_THAT(secondBootSectorPlaces(big, 0x400 * 4096), ElementsAre(0x3FFU * 4096));
  set(big, 11, {0x01, 0x02});
  EXPECT_THAT(secondBootSectorPlaces(big, 0x400 * 4096), IsEmpty());
  Sector huge = ntfs();
  set(huge, 40, ByteVector(8, 0xFF));
  EXPECT_THAT(secondBootSectorPlaces(huge, 0x2000 * 512), ElementsAre(0x1FFFU * 512));
}

TEST(BootSectors, FAT32NamesTheSectorOfItsSecondOne) {
  EXPECT_THAT(secondBootSectorPlaces(fat32(), 1 << 20), ElementsAre(6U * 512));
  EXPECT_THAT(secondBootSectorPlaces(fat32(), 6 * 512), IsEmpty());
  for (const ByteVector& none : {ByteVector{0, 0}, ByteVector{0xFF, 0xFF}}) {
    Sector sector = fat32();
    set(sector, 50, none);
    EXPECT_THAT(secondBootSectorPlaces(sector, 1 << 30), IsEmpty());
  }
  EXPECT_THAT(secondBootSectorPlaces(fat16(), 1 << 20), IsEmpty());
}

TEST(BootSectors, SerialsAreRandom) {
  Serial one = {};
  Serial other = {};
  EXPECT_TRUE(drawSerial(one) && drawSerial(other));
  EXPECT_NE(one, other);
}

}  // namespace
}  // namespace vorlix::test
