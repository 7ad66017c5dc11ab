// SPDX-License-Identifier: Apache-2.0
//
// Decodes and encodes many volume records, each in a separate archive, as hosts exchange them. The time per record must
// not depend on the number of records. compare.py compares it with Python's plistlib on the same archive.
#include <Vorlix/QDVolume.h>
#include <benchmark/benchmark.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

vorlix::Data fixture() {
  std::ifstream file(VORLIX_ARCHIVE_FIXTURE, std::ios::binary);
  vorlix::Data bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (bytes.empty()) throw std::runtime_error("cannot read " VORLIX_ARCHIVE_FIXTURE);
  return bytes;
}

void decodeRecords(benchmark::State& state) {
  const vorlix::Data archive = fixture();
  for (auto _ : state) {
    for (int64_t i = 0; i < state.range(0); ++i) {
      auto record = vorlix::KeyedUnarchiver::unarchivedObject<QDVolume>(archive);
      if (!record) throw std::runtime_error("not an archive of a volume record");
      benchmark::DoNotOptimize(record);
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.SetComplexityN(state.range(0));
}

void encodeRecords(benchmark::State& state) {
  const auto record = vorlix::KeyedUnarchiver::unarchivedObject<QDVolume>(fixture());
  for (auto _ : state) {
    for (int64_t i = 0; i < state.range(0); ++i) {
      auto archive = vorlix::KeyedArchiver::archivedDataWithRootObject(record);
      benchmark::DoNotOptimize(archive);
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.SetComplexityN(state.range(0));
}

BENCHMARK(decodeRecords)->Arg(100)->Arg(1000)->Arg(10000)->Complexity()->Unit(benchmark::kMillisecond);
BENCHMARK(encodeRecords)->Arg(100)->Arg(1000)->Arg(10000)->Complexity()->Unit(benchmark::kMillisecond);

}  // namespace
