// SPDX-License-Identifier: Apache-2.0
//
// Measures the time per GPT entry for tables of several sizes. All entries are in use and come from a stream over
// memory, so no device is measured. Like every call of read_gpt(), each call writes two log messages, whose share is
// largest for the smallest table.
#include <Vorlix/PartitionRecords.h>
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/simulated/SimulatedSystemPaths.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

// Redirects the library's log to a private file during the benchmark.
class PrivateLog {
 public:
  PrivateLog() : path_(std::filesystem::temp_directory_path() / "decode-bench.XXXXXX") {
    const int descriptor = mkstemp(path_.data());
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), path_);
    close(descriptor);
    const auto paths = std::make_shared<vorlix::SimulatedSystemPaths>();
    paths->setLogFile(path_);
    vorlix::Platform ports = vorlix::platform();
    ports.systemPaths = paths;
    before_ = vorlix::setPlatform(std::move(ports));
  }
  ~PrivateLog() {
    vorlix::setPlatform(std::move(before_));
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  PrivateLog(const PrivateLog&) = delete;
  PrivateLog& operator=(const PrivateLog&) = delete;

 private:
  std::string path_;
  vorlix::Platform before_;
};

std::vector<uint8_t> tableOf(size_t count) {
  constexpr uint8_t kBasicData[16] = {0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44,
                                      0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7};
  std::vector<uint8_t> table(count * vorlix::kGPTEntrySize);
  for (size_t i = 0; i < count; ++i) {
    uint8_t* const entry = table.data() + i * vorlix::kGPTEntrySize;
    std::copy(std::begin(kBasicData), std::end(kBasicData), entry);
    for (size_t k = 0; k < 4; ++k) entry[32 + k] = entry[40 + k] = static_cast<uint8_t>((i + 1) * 2048 >> 8 * k);
  }
  return table;
}

void readGPT(benchmark::State& state) {
  const PrivateLog log;
  const auto count = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> table = tableOf(count);
  std::vector<GPTEntry> entries(count);
  GPTHeader header = {};
  header.number_of_entries = static_cast<uint32_t>(count);
  FILE* const stream = fmemopen(table.data(), table.size(), "rb");
  if (stream == nullptr) {
    state.SkipWithError("cannot open a stream over memory");
    return;
  }
  PartitionTable hybrid = {};
  for (auto pass : state) {
    static_cast<void>(pass);
    std::rewind(stream);
    read_gpt(stream, &hybrid, entries.data(), &header, 3, 0);
    benchmark::DoNotOptimize(entries.data());
    benchmark::ClobberMemory();
  }
  std::fclose(stream);
  if (entries.back().first_lba != count * 2048) state.SkipWithError("the last entry was not read");
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(readGPT)->Arg(128)->Arg(4096)->Arg(16384)->Complexity(benchmark::oN);

}  // namespace
