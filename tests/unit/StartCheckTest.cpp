// SPDX-License-Identifier: Apache-2.0
//
// Whether a disk can start, judged from facts. The disks of tests/integration/test_start_check.py are made by other
// tools; here are the facts that they cannot have.
#include <Vorlix/OwnBootCode.h>
#include <Vorlix/StartCheck.h>
#include <gmock/gmock.h>

#include <cstring>

#include "tests/unit/support/DiskBytes.h"

namespace vorlix::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

using Sight = FileFact::Sight;
using State = StartFinding::State;

constexpr uint32_t kFirst = 4096;

void putText(Sector& sector, size_t offset, const char* text) {
  std::memcpy(sector.data() + offset, text, std::strlen(text));
}

// An NTFS boot sector with code, of a volume that starts at kFirst.
Sector ntfsAtFirst() {
  Sector sector = {};
  sector.fill(0x90);
  putText(sector, 3, "NTFS    ");
  sector[11] = 0;
  sector[12] = 2;
  const uint8_t hidden[] = {0x00, 0x10, 0x00, 0x00};
  std::copy(std::begin(hidden), std::end(hidden), sector.begin() + 28);
  sector[510] = 0x55;
  sector[511] = 0xAA;
  return sector;
}

GPTEntry entryOfType(const char* type, uint64_t first, uint64_t last) {
  GPTEntry entry = {};
  std::snprintf(entry.guid_text, sizeof entry.guid_text, "%s", type);
  entry.type_guid[0] = 1;
  entry.first_lba = first;
  entry.last_lba = last;
  return entry;
}

// A disk with an EFI System Partition and Windows in entry 2, right in every way.
StartFacts soundFacts() {
  StartFacts facts;
  facts.disk = "mac.img";
  facts.blocks = 65536;
  facts.blockSize = 512;
  facts.partition = 2;
  facts.gpt.headerLBA = 1;
  facts.gpt.entries = {entryOfType(kEFISystemGUID, 40, kFirst - 1),
                       entryOfType("EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", kFirst, 60000),
                       entryOfType(kUnusedGUID, 0, 0), entryOfType(kUnusedGUID, 0, 0)};
  facts.sector0 = makeSector0(ownBootCode(), hybridTable(facts.gpt.entries, 2).parts);
  StartVolume volume;
  volume.name = "mac.imgs2";
  volume.bootSector = ntfsAtFirst();
  volume.seconds = {{1024, ntfsAtFirst()}};
  volume.dirty = false;
  volume.hibernated = false;
  volume.bootManager.sight = Sight::there;
  volume.legacyStore.reason = "not mounted";
  facts.volume = volume;
  return facts;
}

std::vector<std::string> faultsOf(const StartFacts& facts, StartWay way = StartWay::legacy) {
  std::vector<std::string> codes;
  for (const StartFinding& finding : checkStart(facts, way).findings) {
    if (finding.state != State::fault) continue;
    codes.push_back(finding.code);
    EXPECT_FALSE(finding.text.empty() || finding.why.empty() || finding.command.empty()) << finding.code;
  }
  return codes;
}

std::vector<std::string> areasIn(const StartFacts& facts, State state) {
  std::vector<std::string> areas;
  for (const StartFinding& finding : checkStart(facts, StartWay::legacy).findings) {
    if (finding.state == state) areas.push_back(finding.area);
  }
  return areas;
}

TEST(StartCheck, ASoundDiskHasNoFault) {
  const StartFacts facts = soundFacts();
  EXPECT_THAT(faultsOf(facts), IsEmpty());
  EXPECT_TRUE(checkStart(facts, StartWay::legacy).starts());
  EXPECT_THAT(areasIn(facts, State::ok),
              ElementsAre("gpt", "mbr", "active-slot", "boot-code", "boot-sector", "second-boot-sector", "volume-code",
                          "boot-files", "volume-state"));
}

const StartFinding& faultWith(const StartReport& report, const std::string& code) {
  static const StartFinding none;
  for (const StartFinding& finding : report.findings) {
    if (finding.code == code) return finding;
  }
  ADD_FAILURE() << "no " << code;
  return none;
}

TEST(StartCheck, BootCodeThatOnlyPrintsAMessageStartsNothing) {
  StartFacts facts = soundFacts();
  // push cs; pop ds; mov si, 7C71h; ... int 10h ... int 16h; int 19h; jmp $
  const uint8_t code[] = {0x0E, 0x1F, 0xBE, 0x71, 0x7C, 0xAC, 0x22, 0xC0, 0x74, 0x0B, 0x56, 0xB4, 0x0E, 0xBB, 0x07,
                          0x00, 0xCD, 0x10, 0x5E, 0xEB, 0xF0, 0x32, 0xE4, 0xCD, 0x16, 0xCD, 0x19, 0xEB, 0xFE};
  Sector& sector = facts.volume->bootSector;
  sector[0] = 0xEB;
  sector[1] = 0x52;
  std::copy(std::begin(code), std::end(code), sector.begin() + 84);
  facts.volume->seconds = {{1024, sector}};
  EXPECT_THAT(faultsOf(facts), ElementsAre("volume-code-message"));
  const StartReport report = checkStart(facts, StartWay::legacy);
  EXPECT_FALSE(report.starts());
  EXPECT_EQ(faultWith(report, "volume-code-message").command,
            "vorlix vbr restore FILE mac.imgs2, or bootsect /nt60 C: in Windows' set-up");
  EXPECT_THAT(faultsOf(facts, StartWay::efi), Not(Contains("volume-code-message")));  // which does not run it
}

TEST(StartCheck, TheVolumesOwnFilesMendAMissingStoreIfTheyCan) {
  StartFacts facts = soundFacts();
  facts.volume->legacyStore = {Sight::missing, "", {}};
  const auto command = [&] { return faultWith(checkStart(facts, StartWay::legacy), "legacy-store-missing").command; };
  EXPECT_EQ(command(), "vorlix mount mac.imgs2 && vorlix legacy-boot mac.imgs2 --bcd FILE");
  facts.volume->suppliesBootFiles = true;
  EXPECT_EQ(command(),
            "vorlix mount mac.imgs2 && vorlix legacy-boot mac.imgs2 --bcd FILE");  // a store needs a disk signature
  facts.sector0[440] = 1;
  EXPECT_EQ(command(), "vorlix bcd mac.img --partition 2 --from-windows --firmware bios");
  facts.volume->bootManager.sight = Sight::missing;
  EXPECT_EQ(faultWith(checkStart(facts, StartWay::legacy), "boot-manager-missing").command, command());
  facts.volume->suppliesBootFiles = false;
  EXPECT_EQ(command(), "vorlix mount mac.imgs2 && vorlix legacy-boot mac.imgs2 --bcd FILE");
}

TEST(StartCheck, TheVolumesOwnFilesMendAMissingStartByEFIIfTheyCan) {
  StartFacts facts = soundFacts();
  facts.efi.partition = 1;
  facts.efi.name = "mac.imgs1";
  facts.efi.bootManager.sight = facts.efi.fallback.sight = facts.efi.store.sight = Sight::missing;
  const auto command = [&](const char* code) { return faultWith(checkStart(facts, StartWay::efi), code).command; };
  EXPECT_EQ(command("efi-manager-missing"), "bcdboot C:\\Windows /s S: /f UEFI in Windows");
  EXPECT_EQ(command("store-missing"), "vorlix bcd mac.img --partition 2 --template FILE --mode MODE");
  facts.volume->suppliesEFIFiles = true;
  EXPECT_EQ(command("efi-manager-missing"), "vorlix bcd mac.img --partition 2 --from-windows");
  EXPECT_EQ(command("store-missing"), command("efi-manager-missing"));
  facts.efi.partition = 3;  // which that command does not use
  EXPECT_EQ(command("efi-manager-missing"), "bcdboot C:\\Windows /s S: /f UEFI in Windows");
}

TEST(StartCheck, ADirtyVolumeAndAHibernatedOneAreFaults) {
  StartFacts facts = soundFacts();
  facts.volume->dirty = true;
  EXPECT_THAT(faultsOf(facts), ElementsAre("volume-dirty"));
  EXPECT_FALSE(checkStart(facts, StartWay::legacy).starts());
  facts.volume->hibernated = true;
  EXPECT_THAT(faultsOf(facts), ElementsAre("volume-dirty", "volume-hibernated"));
  facts.volume->dirty = false;
  EXPECT_THAT(faultsOf(facts), ElementsAre("volume-hibernated"));
}

TEST(StartCheck, AReaderMayTellNoMoreThanADoubt) {
  StartFacts facts = soundFacts();
  facts.volume->dirty.reset();
  facts.volume->hibernated.reset();
  facts.volume->doubt = "";
  EXPECT_THAT(faultsOf(facts), IsEmpty());
  EXPECT_THAT(areasIn(facts, State::ok), Contains("volume-state"));
  facts.volume->doubt = "its journal is not empty";
  EXPECT_THAT(faultsOf(facts), ElementsAre("volume-unclean"));
  EXPECT_THAT(areasIn(facts, State::ok), Not(Contains("volume-state")));
  EXPECT_THAT(areasIn(facts, State::unseen), Not(Contains("volume-state")));
  facts.volume->hibernated = true;  // what is known exactly is told instead
  EXPECT_THAT(faultsOf(facts), ElementsAre("volume-hibernated"));
}

TEST(StartCheck, WhatWasNotLookedAtIsNotOk) {
  StartFacts facts = soundFacts();
  facts.volume->dirty.reset();
  facts.volume->stateReason = "not mounted";
  facts.volume->bootManager = {Sight::unseen, "not mounted", {}};
  EXPECT_THAT(faultsOf(facts), IsEmpty());
  EXPECT_THAT(areasIn(facts, State::unseen), ElementsAre("boot-files", "volume-state"));
  EXPECT_THAT(areasIn(facts, State::ok), Not(Contains("volume-state")));
  EXPECT_THAT(areasIn(facts, State::ok), Not(Contains("boot-files")));
}

TEST(StartCheck, AnUnseenPartIsToldBesideAFault) {
  StartFacts facts = soundFacts();
  facts.volume->dirty = true;
  facts.volume->hibernated.reset();
  facts.volume->stateReason = "not mounted";
  EXPECT_THAT(faultsOf(facts), ElementsAre("volume-dirty"));
  EXPECT_THAT(areasIn(facts, State::unseen), Contains("volume-state"));
}

TEST(StartCheck, CommandsAreWordsForAShell) {
  StartFacts facts = soundFacts();
  facts.disk = "/media/my disk/it's.img";
  facts.sector0 = {};
  facts.type = 0x0C;
  for (const StartFinding& finding : checkStart(facts, StartWay::legacy).findings) {
    if (finding.code != "boot-code-missing") continue;
    EXPECT_EQ(finding.command, "vorlix hybrid '/media/my disk/it'\\''s.img' --partition 2 --type 0C");
    return;
  }
  FAIL() << "no finding about boot code";
}

TEST(StartCheck, OtherTypesOfTheSlotAreTakenFromTheCaller) {
  StartFacts facts = soundFacts();
  facts.type = 0x0C;
  EXPECT_THAT(faultsOf(facts), ElementsAre("mbr-differs"));
  facts.sector0[446 + 16 + 4] = 0x0C;
  EXPECT_THAT(faultsOf(facts), IsEmpty());
}

TEST(StartCheck, TheWaysThatAreJudged) {
  StartFacts facts = soundFacts();
  const auto judged = [&](StartWay way) {
    const StartReport report = checkStart(facts, way);
    return std::make_pair(report.legacy, report.efi);
  };
  EXPECT_EQ(judged(StartWay::automatic), std::make_pair(true, false));
  EXPECT_EQ(judged(StartWay::both), std::make_pair(true, true));
  EXPECT_EQ(judged(StartWay::efi), std::make_pair(false, true));
  facts.efi.store.sight = Sight::there;
  EXPECT_EQ(judged(StartWay::automatic), std::make_pair(true, true));
  PartitionTable guard = hybridTable(facts.gpt.entries, 0);
  makeGuard(guard, 65000);
  facts.sector0 = makeSector0({}, guard.parts);
  EXPECT_EQ(judged(StartWay::automatic), std::make_pair(false, true));
  EXPECT_EQ(judged(StartWay::legacy), std::make_pair(true, false));
}

TEST(StartCheck, AStoreOfAnySizeIsSearchedInsideItsBytes) {
  for (size_t size = 0; size < 200; ++size) {
    EXPECT_THAT(storeDevices(ByteVector(size)), IsEmpty());
  }
  // Type 6 at 0x10, length 0x48 at 0x18, identifiers at 0x20 and 0x38: 88 bytes, cut off at each place.
  ByteVector element(88);
  element[0x10] = 6;
  element[0x18] = 0x48;
  element[0x20] = 0xAB;
  element[0x34] = 1;
  element[0x38] = 0xCD;
  const std::vector<StoreDevice> devices = storeDevices(element);
  ASSERT_EQ(devices.size(), 1U);
  EXPECT_EQ(devices[0].offset, 0x20U);
  EXPECT_TRUE(devices[0].isMBR);
  EXPECT_EQ(devices[0].partition[0], 0xAB);
  EXPECT_EQ(devices[0].disk[0], 0xCD);
  element.resize(0x38 + 15);
  EXPECT_THAT(storeDevices(element), IsEmpty());
}

TEST(StartCheck, QuotesNamesForAShell) {
  EXPECT_EQ(commandWord("/dev/sda3"), "/dev/sda3");
  EXPECT_EQ(commandWord("a b.img"), "'a b.img'");
  EXPECT_EQ(commandWord("it's $HOME"), "'it'\\''s $HOME'");
  EXPECT_EQ(commandWord("-rf"), "./'-rf'");
  EXPECT_EQ(commandWord(""), "''");
}

TEST(OwnBootCode, IsCodeForSectorZero) {
  Sector sector = {};
  EXPECT_TRUE(lacksDiskBootCode(sector));
  sector[440] = 1;  // the disk signature
  EXPECT_TRUE(lacksDiskBootCode(sector));
  sector[439] = 1;
  EXPECT_FALSE(lacksDiskBootCode(sector));
  EXPECT_EQ(ownBootCode()[0], 0xFA);  // cli
}

}  // namespace
}  // namespace vorlix::test
