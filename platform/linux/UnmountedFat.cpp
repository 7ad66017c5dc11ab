// SPDX-License-Identifier: Apache-2.0
#include "UnmountedFat.h"

#include <Vorlix/foundation/CaseFolding.h>
#include <Vorlix/platform/DiskChange.h>
#include <fcntl.h>
#include <unistd.h>
#include "platform/changes/Journal.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>

#include "DeviceFacts.h"
#include "FatFileChange.h"
#include "FatVolume.h"
#include "MirrorLookup.h"
#include "MirrorPlace.h"
#include "Mounting.h"
#include "OpenedDevice.h"
#include "VolumeCopy.h"
#include "VolumeDevice.h"
#include "VolumeProbe.h"
#include "platform/posix/DescriptorCalls.h"

namespace vorlix {
namespace {

// What reading takes, whoever has the volume open.
class FatFiles : public UnmountedVolume {
 public:
  std::vector<Item> itemsIn(const std::string& folder) const override {
    std::vector<Item> items;
    for (const FatEntry& entry : volume_.entries()) {
      const size_t slash = entry.path.rfind('/');
      if (entry.path.compare(0, slash, folder) != 0) continue;
      items.push_back({entry.path.substr(slash + 1), entry.isFolder, entry.size});
    }
    return items;
  }

  std::optional<Dissenter> read(const std::string& file, std::vector<uint8_t>& bytes) const override {
    const FatEntry* const entry = at(file);
    if (entry == nullptr) return dissenterFor(ENOENT, file);
    bytes.assign(entry->size, 0);
    return volume_.readFile(source(), *entry, [&](uint64_t offset, const uint8_t* piece, size_t count) -> Refusal {
      std::copy_n(piece, count, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
      return std::nullopt;
    });
  }

  std::optional<Dissenter> readStart(const std::string& file, size_t count,
                                     std::vector<uint8_t>& bytes) const override {
    const FatEntry* const entry = at(file);
    bytes.clear();
    if (entry == nullptr) return dissenterFor(ENOENT, file);
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(count, entry->size));
    const Refusal refusal =
        volume_.readFile(source(), *entry, [&](uint64_t, const uint8_t* piece, size_t size) -> Refusal {
          bytes.insert(bytes.end(), piece, piece + std::min(size, wanted - bytes.size()));
          return bytes.size() < wanted ? Refusal() : Dissenter{kDissentError, "the rest is not wanted"};
        });
    return bytes.size() < wanted ? refusal : std::nullopt;
  }

  uint64_t roomFor(const std::string& file) const override {
    uint64_t clusters = volume_.freeClusters();
    if (const FatEntry* const entry = at(file)) {
      for (const FatRun& run : entry->runs) clusters += run.count;
    }
    return clusters * volume_.layout().clusterSize;
  }

 protected:
  explicit FatFiles(FatVolume volume) : volume_(std::move(volume)) {}

  virtual FatSource source() const = 0;

  const FatEntry* at(const std::string& path) const {
    const auto found = std::find_if(volume_.entries().begin(), volume_.entries().end(),
                                    [&](const FatEntry& entry) { return entry.path == path; });
    return found == volume_.entries().end() ? nullptr : &*found;
  }

  FatVolume volume_;
};

class FatToRead final : public FatFiles {
 public:
  FatToRead(OpenedDevice device, FatVolume volume) : FatFiles(std::move(volume)), device_(std::move(device)) {}

  std::optional<Dissenter> write(const std::string& file, const std::vector<uint8_t>&, const ChangeBackup&,
                                 std::string& kept, std::string& state) override {
    kept.clear();
    state.clear();
    return dissenterFor(EROFS, file);
  }

 private:
  FatSource source() const override { return {device_.descriptor.get(), device_.window}; }

  OpenedDevice device_;
};

class UnmountedFat final : public FatFiles {
 public:
  UnmountedFat(MirrorPlace place, VolumeDevice device, FatVolume volume)
      : FatFiles(std::move(volume)), place_(std::move(place)), device_(std::move(device)) {}

  std::optional<Dissenter> write(const std::string& file, const std::vector<uint8_t>& bytes, const ChangeBackup& backup,
                                 std::string& kept, std::string& state) override {
    kept.clear();
    state.clear();
    FatFileChange change;
    if (Refusal refusal = plan(file, bytes, change)) return refusal;
    const FatSectors all = change.all();
    if (Refusal refusal = checkFatFileChange(FatSource(source(), all), volume_, file, bytes)) return refusal;
    std::unique_ptr<Journal> journal;
    if (Refusal refusal = writeJournal(file, change, backup, journal)) return refusal;
    if (auto failure = applyJournal(*journal, {&device_.handle()}, backup, kept)) {
      if (failure->state != kNothingWritten) state = std::exchange(failure->state, "");
      return Dissenter{kDissentError, failure->subject + ": " + failure->reason};
    }
    return verify(file, bytes, state);
  }

 private:
  FatSource source() const override { return {device_.descriptor(), device_.window()}; }

  Refusal plan(const std::string& file, const std::vector<uint8_t>& bytes, FatFileChange& change) const {
    const std::time_t now = std::time(nullptr);
    if (const FatEntry* const entry = at(file)) {
      if (entry->isFolder) return dissenterFor(EISDIR, file);
      return replaceFatFile(source(), volume_, *entry, bytes, now, change);
    }
    const size_t slash = file.rfind('/');
    const FatEntry* const folder = at(file.substr(0, slash));
    if (folder == nullptr || !folder->isFolder) return dissenterFor(ENOENT, file);
    return makeFatFile(source(), volume_, *folder, file.substr(slash + 1), bytes, now, change);
  }

  Refusal writeJournal(const std::string& file, const FatFileChange& change, const ChangeBackup& backup,
                       std::unique_ptr<Journal>& journal) {
    const auto identity = device_.handle().identity();
    if (!identity) return dissenterFor(errno, device_.name());
    std::unique_ptr<JournalWriter> writer;
    const std::string name = file.substr(file.rfind('/') + 1);
    if (auto failure = JournalWriter::begin(name + " on " + device_.name(), backup, writer))
      return dissenterFor(*failure);
    const size_t device = writer->addDevice(device_.name(), *identity);
    const std::pair<const FatSectors&, std::string> parts[] = {
        {change.content, name}, {change.folders, "the folder of " + name}, {change.tables, "the allocation tables"}};
    for (const auto& [sectors, reason] : parts) {
      if (Refusal refusal = addRuns(sectors, reason, device, *writer)) return refusal;
    }
    if (auto failure = writer->commit(journal)) return dissenterFor(*failure);
    return std::nullopt;
  }

  // Consecutive sectors become one run. Sectors that do not change are left out.
  Refusal addRuns(const FatSectors& sectors, const std::string& reason, size_t device, JournalWriter& writer) const {
    std::vector<uint8_t> before;
    std::vector<uint8_t> after;
    uint64_t start = 0;
    const auto add = [&]() -> Refusal {
      const auto failure = before.empty() ? std::nullopt : writer.add(device, start, before, after, reason);
      before.clear();
      after.clear();
      return failure ? Refusal(dissenterFor(*failure)) : std::nullopt;
    };
    std::vector<uint8_t> now(kFatSector);
    for (const auto& [offset, bytes] : sectors) {
      if (!source().read(now.data(), now.size(), offset)) return dissenterFor(errno, "reading the FAT file system");
      if (now == bytes) continue;
      if (offset != start + before.size() || before.size() == kLongestRun) {
        if (Refusal refusal = add()) return refusal;
        start = offset;
      }
      before.insert(before.end(), now.begin(), now.end());
      after.insert(after.end(), bytes.begin(), bytes.end());
    }
    return add();
  }

  // Checks the volume that is on the medium now.
  Refusal verify(const std::string& file, const std::vector<uint8_t>& bytes, std::string& state) {
    forgetCached(device_.descriptor(), device_.window().offset, volume_.layout().totalSize);
    const Refusal refusal = checkFatFileChange(source(), volume_, file, bytes);
    if (refusal) state = "it was written";
    return refusal;
  }

  MirrorPlace place_;  // released last
  VolumeDevice device_;
};

}  // namespace

std::unique_ptr<UnmountedVolume> openUnmountedFat(const DeviceLocation& location, Refusal& refusal) {
  if (geteuid() == 0 || isReadOnlyMedium(location) || access(location.node.c_str(), W_OK) != 0) return nullptr;
  std::string key;
  uint64_t identity = 0;
  {
    const std::optional<OpenedDevice> opened = openLocation(location, O_RDONLY);
    if (!opened || volumePlaceOf(location, opened)) return nullptr;
    const std::optional<ProbedVolume> facts = probeVolume(opened->descriptor.get(), opened->window);
    const auto found = readFatIdentity(FatSource(opened->descriptor.get(), opened->window));
    const auto place = mirrorKey(location, opened->window);
    if (!facts || facts->kind != "msdos" || !found || !place) return nullptr;
    key = *place;
    identity = *found;
  }
  std::optional<MirrorPlace> place;
  if ((refusal = MirrorPlace::lock(key, identity, place))) return nullptr;
  if (place->state()) return nullptr;  // another process has mounted it meanwhile
  VolumeDevice device;
  if ((refusal = device.open(location, true)) || (refusal = device.settle())) return nullptr;
  FatVolume volume;
  if (volume.read(device.descriptor(), device.window()) || volume.identity() != identity) return nullptr;
  return std::make_unique<UnmountedFat>(*std::move(place), std::move(device), std::move(volume));
}

std::unique_ptr<UnmountedVolume> fatToRead(OpenedDevice device, Refusal& refusal) {
  FatVolume volume;
  if ((refusal = volume.read(device.descriptor.get(), device.window))) return nullptr;
  return std::make_unique<FatToRead>(std::move(device), std::move(volume));
}

}  // namespace vorlix
