// SPDX-License-Identifier: Apache-2.0
//
// Lists many mounted volumes on a simulated machine. Every fourth volume has Windows and no boot files. The time and
// the number of disk-arbitration calls per volume must not depend on the number of volumes.
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <benchmark/benchmark.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

namespace fs = std::filesystem;

class Folders {
 public:
  Folders() : root_((fs::temp_directory_path() / "listing-bench.XXXXXX").string()) {
    if (mkdtemp(root_.data()) == nullptr) throw std::system_error(errno, std::generic_category(), root_);
  }
  ~Folders() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  Folders(const Folders&) = delete;
  Folders& operator=(const Folders&) = delete;

  std::string mountPath(int64_t number) const { return root_ + "/" + std::to_string(number); }

 private:
  std::string root_;
};

void addVolume(vorlix::SimulatedMachine& machine, const Folders& folders, int64_t number) {
  constexpr uint64_t kSize = uint64_t{1} << 30;
  const std::string disk = "disk" + std::to_string(number);
  const std::string path = folders.mountPath(number);
  fs::create_directories(number % 4 == 0 ? path + "/Windows/System32" : path);
  machine.addDisk(disk, kSize, 512);
  machine.addSlice(disk, 1, 64, 1024);
  machine.setVolume(disk + "s1", {"ntfs", "Volume", std::nullopt, path, true});
  machine.addMountedVolume({"Volume", path, "/dev/" + disk + "s1", kSize, kSize / 2});
}

void listVolumes(benchmark::State& state) {
  const Folders folders;
  vorlix::SimulatedMachine machine;
  for (int64_t number = 0; number < state.range(0); ++number) addVolume(machine, folders, number);
  const vorlix::ScopedPlatform scope(machine.platform());
  const auto manager = QDDeviceManager::sharedDeviceManager();
  size_t calls = 0;
  for (auto _ : state) {
    machine.clearJournal();
    const auto volumes = manager->attachedDisks();
    if (volumes.size() != static_cast<size_t>(state.range(0))) throw std::runtime_error("volumes are missing");
    calls = machine.journal().size();
  }
  const auto volumes = static_cast<double>(state.range(0));
  state.counters["calls/volume"] = static_cast<double>(calls) / volumes;
  state.counters["time/volume"] =
      benchmark::Counter(volumes, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.SetComplexityN(state.range(0));
}

BENCHMARK(listVolumes)->Arg(10)->Arg(100)->Arg(1000)->Complexity()->Unit(benchmark::kMillisecond);

}  // namespace
