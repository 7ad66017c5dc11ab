// SPDX-License-Identifier: Apache-2.0
//
// Measures the output of programs: lines per second through the task helper, compared with popen() on the same
// pipeline, and bytes per second through the task wrapper, compared with reading the same program's pipe directly. The
// helper writes each line to the log, as it always does. A second benchmark without the log file shows what that costs.
#include <Vorlix/LogCapture.h>
#include <Vorlix/QDTaskHelper.h>
#include <Vorlix/QDTaskWrapperWithBlocks.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <Vorlix/platform/simulated/SimulatedSystemPaths.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr int64_t kLines = 100000;
constexpr int64_t kBytes = int64_t{256} << 20;

class TemporaryFile {
 public:
  TemporaryFile() : path_(std::filesystem::temp_directory_path() / "task-bench.XXXXXX") {
    const int descriptor = mkstemp(path_.data());
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), path_);
    close(descriptor);
  }
  ~TemporaryFile() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::string linesCommand() {
  return "i=0; while [ $i -lt " + std::to_string(kLines / 100) + " ]; do printf '%s' \"$L\"; i=$((i+1)); done";
}

// Sets the variable L to a hundred lines, which the shell prints at once.
void setLines() {
  std::string lines;
  for (int i = 0; i < 100; ++i) lines += "ProductName of the line " + std::to_string(i) + "\n";
  setenv("L", lines.c_str(), 1);
}

// Collects the lines in one string with popen() and getline(), as a plain program would.
std::string linesByPopen(const std::string& command) {
  FILE* const stream = popen(command.c_str(), "r");
  if (stream == nullptr) return {};
  std::string all;
  char* line = nullptr;
  size_t room = 0;
  for (ssize_t length = getline(&line, &room, stream); length > 0; length = getline(&line, &room, stream)) {
    if (line[length - 1] == '\n') --length;
    all.append(line, static_cast<size_t>(length));
  }
  std::free(line);
  pclose(stream);
  return all;
}

void linesThroughHelper(benchmark::State& state, vorlix::LogCapture::File file) {
  setLines();
  const TemporaryFile log;
  const auto paths = std::make_shared<vorlix::SimulatedSystemPaths>();
  paths->setLogFile(log.path());
  vorlix::Platform ports = vorlix::platform();
  ports.systemPaths = paths;
  const vorlix::ScopedPlatform scope(std::move(ports));
  const std::string expected = linesByPopen(linesCommand());
  std::string result;
  for (auto pass : state) {
    static_cast<void>(pass);
    // Do not capture if the log file is written, because the capture would take time too.
    std::optional<vorlix::LogCapture> capture;
    if (file == vorlix::LogCapture::File::leftAlone) capture.emplace(file);
    result = QDTaskHelper::sharedTaskHelper()->runCommand("/bin/sh", {"-c", linesCommand()});
  }
  if (result != expected || expected.empty()) state.SkipWithError("the result differs from the program's output");
  state.SetItemsProcessed(state.iterations() * kLines);
}

void helperWithLog(benchmark::State& state) {
  linesThroughHelper(state, vorlix::LogCapture::File::written);
}
BENCHMARK(helperWithLog)->Unit(benchmark::kMillisecond)->UseRealTime();

void helperWithoutLogFile(benchmark::State& state) {
  linesThroughHelper(state, vorlix::LogCapture::File::leftAlone);
}
BENCHMARK(helperWithoutLogFile)->Unit(benchmark::kMillisecond)->UseRealTime();

void popenLines(benchmark::State& state) {
  setLines();
  std::string result;
  for (auto pass : state) {
    static_cast<void>(pass);
    result = linesByPopen(linesCommand());
  }
  if (result.empty()) state.SkipWithError("the pipeline printed nothing");
  state.SetItemsProcessed(state.iterations() * kLines);
}
BENCHMARK(popenLines)->Unit(benchmark::kMillisecond)->UseRealTime();

std::string bytesCommand() {
  return "/usr/bin/head -c " + std::to_string(kBytes) + " /dev/zero";
}

void wrapperBytes(benchmark::State& state) {
  const auto loop = vorlix::platform().runLoops->current();
  for (auto pass : state) {
    static_cast<void>(pass);
    int64_t bytes = 0;
    bool ended = false;
    const auto wrapper = QDTaskWrapperWithBlocks::initWithStartBlock(
        [] {}, [&] { ended = true; },
        [&](const std::optional<std::string>& text) { bytes += static_cast<int64_t>(text ? text->size() : 0); },
        [](const std::optional<std::string>&) {},
        std::make_shared<const std::vector<std::string>>(std::vector<std::string>{"/bin/sh", "-c", bytesCommand()}));
    wrapper->startProcess();
    while (!ended) loop->run(vorlix::kDefaultRunLoopMode, std::chrono::seconds(1));
    if (bytes != kBytes) state.SkipWithError("not all bytes arrived");
  }
  state.SetBytesProcessed(state.iterations() * kBytes);
}
BENCHMARK(wrapperBytes)->Unit(benchmark::kMillisecond)->UseRealTime();

// Runs cat in the place of the wrapper: it reads the same program's output from a pipe and discards it.
void catBytes(benchmark::State& state) {
  const std::string command = bytesCommand() + " | /bin/cat > /dev/null";
  for (auto pass : state) {
    static_cast<void>(pass);
    if (std::system(command.c_str()) != 0) state.SkipWithError("the pipeline failed");
  }
  state.SetBytesProcessed(state.iterations() * kBytes);
}
BENCHMARK(catBytes)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
