// SPDX-License-Identifier: Apache-2.0
//
// Updates a disk that starts with arbitrary bytes, on a simulated machine with faults. The first bytes of the boot
// code, which the update replaces without reading them, select the options:
//
//   0    bits 0-2 partition, bit 3 guard switch, bit 4 blocks of 4096 bytes, bit 5 the block size is unknown,
//        bit 6 no boot-code path, bit 7 a boot-code file of ten bytes
//   1    partition ID
//   2    bits 0-1 another process's lock (2 shared, 3 exclusive), bit 2 the volume is on another disk,
//        bit 3 writes to the disk stop early, bit 4 writes to the volume stop early, bit 5 reads fail,
//        bit 6 syncing fails, bit 7 an ID above 255
//   3    number of bytes before writes stop, number of reads before reads fail
//   4-5  first block of the volume, if it is on the same disk
//   6-9  start sector
#include <Vorlix/PartitionRecords.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include "library/QDSDiskFunctions/OpenDevices.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include "FuzzSupport.h"

namespace {

constexpr size_t kSteeringSize = 10;
constexpr size_t kLargestInput = size_t{1} << 18;
constexpr uint64_t kVolumeBlocks = 8;
constexpr uint64_t kLargestCount = 1024;

struct Environment {
  fuzz::Workplace workplace;
  std::string bootCode = workplace.addFile("boot", std::string(440, '\x90') + std::string(100, '\xCC'));
  std::string shortBootCode = workplace.addFile("short", std::string(10, '\x90'));
};

const Environment& environment() {
  static const Environment instance;
  return instance;
}

struct Case {
  explicit Case(const uint8_t* data) {
    partition = data[0] & 7;
    guard = data[0] >> 3 & 1;
    blockSize = (data[0] & 16) != 0 ? 4096 : 512;
    blockSizeUnknown = (data[0] & 32) != 0;
    if ((data[0] & 64) == 0) {
      bootCode = (data[0] & 128) != 0 ? environment().shortBootCode.c_str() : environment().bootCode.c_str();
      bootCodeSize = (data[0] & 128) != 0 ? 10 : 446;
    }
    id = data[1] + ((data[2] & 128) != 0 ? 256U : 0U);
    if ((data[2] & 2) != 0) lock = (data[2] & 1) != 0 ? vorlix::DeviceLock::exclusive : vorlix::DeviceLock::shared;
    ownDisk = (data[2] & 4) != 0;
    diskStops = (data[2] & 8) != 0;
    volumeStops = (data[2] & 16) != 0;
    readsFail = (data[2] & 32) != 0;
    syncFails = (data[2] & 64) != 0;
    amount = data[3];
    volumeBlock = fuzz::littleEndian(data + 4, 2);
    start = static_cast<uint32_t>(fuzz::littleEndian(data + 6, 4));
  }

  bool argumentsRefused() const { return id != 0 && (partition == 0 || id > 255); }
  bool patchesVolume() const { return partition >= 1 && partition <= 4 && guard == 0; }
  bool machineRefuses() const {
    return lock == vorlix::DeviceLock::exclusive || diskStops || volumeStops || readsFail || syncFails;
  }
  const char* volume() const { return ownDisk ? "disk1s1" : "disk0s1"; }

  uint32_t partition = 0;
  uint32_t id = 0;
  int guard = 0;
  uint32_t start = 0;
  uint32_t blockSize = 512;
  bool blockSizeUnknown = false;
  const char* bootCode = nullptr;
  size_t bootCodeSize = 0;
  vorlix::DeviceLock lock = vorlix::DeviceLock::none;
  bool ownDisk = false;
  bool diskStops = false;
  bool volumeStops = false;
  bool readsFail = false;
  bool syncFails = false;
  uint8_t amount = 0;
  uint64_t volumeBlock = 0;
};

struct Disks {
  std::vector<uint8_t> disk;
  std::vector<uint8_t> other;
};

class Scene {
 public:
  Scene(const Case& what, const uint8_t* data, size_t size) : what_(what) {
    const uint64_t blocks = (size + what.blockSize - 1) / what.blockSize + kVolumeBlocks + 1;
    diskSize_ = blocks * what.blockSize;
    volumeOffset_ = (1 + what.volumeBlock % (blocks - kVolumeBlocks)) * what.blockSize;
    machine.setLogFile(environment().workplace.log());
    machine.addDisk("disk0", diskSize_, what.blockSize);
    machine.addSlice("disk0", 1, volumeOffset_ / what.blockSize, kVolumeBlocks);
    machine.addDisk("disk1", kOtherSize, 512);
    machine.addSlice("disk1", 1, 1, kVolumeBlocks);
    machine.setBytes("disk0", 0, std::vector<uint8_t>(data, data + size));
    holdEntryCount();
    if (what.blockSizeUnknown) machine.hideBlockSize("disk0");
    machine.lockElsewhere("disk0", what.lock);
    if (what.diskStops) machine.shortenWrites("disk0", what.amount);
    if (what.volumeStops) machine.shortenWrites(what.volume(), what.amount % 9);
    if (what.readsFail) machine.fail("disk0", vorlix::Operation::read, EIO, what.amount % 4);
    if (what.syncFails) machine.fail(what.volume(), vorlix::Operation::sync, EIO);
  }

  int run() {
    const vorlix::ScopedPlatform scope(machine.platform());
    const int result = update_mbr_and_partition("disk0", what_.bootCode, what_.partition, what_.id, what_.volume(),
                                                what_.guard, what_.start);
    FUZZ_CHECK(machine.openCount() == vorlix::keptOpenCount());
    vorlix::closeKeptOpen();
    FUZZ_CHECK(machine.openCount() == 0);
    return result;
  }

  Disks disks() const { return {machine.bytes("disk0", 0, diskSize_), machine.bytes("disk1", 0, kOtherSize)}; }

  bool mayPatch(uint64_t offset) const { return !what_.ownDisk && isPatched(offset, volumeOffset_); }
  bool mayPatchOther(uint64_t offset) const { return what_.ownDisk && isPatched(offset, 512); }

  bool wroteSectorZero() const {
    const auto writes = machine.writes();
    return std::any_of(writes.begin(), writes.end(),
                       [](const std::string& line) { return line.rfind("write disk0 ", 0) == 0; });
  }

  vorlix::SimulatedMachine machine;

 private:
  static constexpr uint64_t kOtherSize = 16 * 512;

  // Limits the header's entry count. Tens of thousands of entries beyond the input take most of the time and test
  // nothing new.
  void holdEntryCount() {
    const uint64_t offset = uint64_t{what_.blockSize} + 80;
    const auto count = machine.bytes("disk0", offset, 4);
    if (count.size() < 4 || fuzz::littleEndian(count.data(), 4) <= kLargestCount) return;
    machine.setBytes("disk0", offset, {kLargestCount & 0xFF, kLargestCount >> 8, 0, 0});
  }

  static bool isPatched(uint64_t offset, uint64_t volume) {
    const uint64_t inVolume = offset - volume;
    return offset >= volume && ((inVolume >= 28 && inVolume < 32) || (inVolume >= 72 && inVolume < 80));
  }

  const Case& what_;
  uint64_t diskSize_ = 0;
  uint64_t volumeOffset_ = 0;
};

// Only sector 0 and the two fields of the volume may change, and only if the update should write them.
void checkWhere(const Case& what, const Scene& scene, const Disks& before, const Disks& after) {
  FUZZ_CHECK(after.disk.size() == before.disk.size() && after.other.size() == before.other.size());
  for (uint64_t i = vorlix::kSectorSize; i < before.disk.size(); ++i) {
    if (before.disk[i] != after.disk[i]) FUZZ_CHECK(what.patchesVolume() && scene.mayPatch(i));
  }
  for (uint64_t i = 0; i < before.other.size(); ++i) {
    if (before.other[i] != after.other[i]) FUZZ_CHECK(what.patchesVolume() && scene.mayPatchOther(i));
  }
}

void checkSectorZero(const Case& what, const std::vector<uint8_t>& sector) {
  for (size_t i = 0; i < vorlix::kBootCodeSize; ++i) {
    const uint8_t code = i < 440 ? uint8_t{0x90} : uint8_t{0xCC};
    FUZZ_CHECK(sector[i] == (i < what.bootCodeSize ? code : uint8_t{0}));
  }
  FUZZ_CHECK(sector[450] == 0xEE);
  FUZZ_CHECK(sector[510] == 0x55 && sector[511] == 0xAA);
  if (what.guard != 0) {
    FUZZ_CHECK(std::all_of(sector.begin() + 462, sector.begin() + 510, [](uint8_t byte) { return byte == 0; }));
  }
}

void checkVolume(const Case& what, const Scene& scene) {
  const auto field = scene.machine.bytes(what.volume(), 28, 4);
  FUZZ_CHECK(fuzz::littleEndian(field.data(), 4) == what.start);
}

// Returns whether a second run must find nothing to do. That holds if the first run succeeded, if the entries are
// neither in sector 0 nor in the volume's first sector, and if the CHS form of every sector number fits a slot.
bool settles(const Case& what, const uint8_t* data, size_t size) {
  if (what.machineRefuses() || what.blockSizeUnknown || what.bootCode == nullptr || !what.ownDisk) return false;
  if (size < what.blockSize + 92) return false;
  const uint64_t entryLBA = fuzz::littleEndian(data + what.blockSize + 72, 8);
  if (entryLBA == 0) return false;
  if (entryLBA > size / what.blockSize) return true;  // all entries are zero
  for (uint64_t i = 0; i < vorlix::kSlotCount; ++i) {
    const uint64_t entry = entryLBA * what.blockSize + i * vorlix::kGPTEntrySize;
    if (entry + vorlix::kGPTEntrySize > size) return false;
    if ((data[entry + 35] | data[entry + 43]) >= 0x80) return false;
  }
  return true;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kSteeringSize || size > kLargestInput) return 0;
  environment().workplace.emptyLog();
  const Case what(data);
  Scene scene(what, data, size);
  const Disks before = scene.disks();
  const int result = scene.run();
  const Disks after = scene.disks();

  FUZZ_CHECK(result == 0 || result == -1);
  checkWhere(what, scene, before, after);
  const bool sectorZeroWritten = scene.wroteSectorZero();
  if (what.argumentsRefused()) FUZZ_CHECK(result == -1 && scene.machine.journal().empty());
  if (what.bootCode == nullptr || what.lock == vorlix::DeviceLock::exclusive) FUZZ_CHECK(!sectorZeroWritten);
  if (sectorZeroWritten && !what.diskStops) checkSectorZero(what, after.disk);
  if (result == 0 && what.patchesVolume()) checkVolume(what, scene);

  if (settles(what, data, size)) {
    scene.machine.clearJournal();
    FUZZ_CHECK(scene.run() == result);
    FUZZ_CHECK(!scene.wroteSectorZero());
  }
  return 0;
}
