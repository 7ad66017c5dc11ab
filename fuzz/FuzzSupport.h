// SPDX-License-Identifier: Apache-2.0
//
// Shared code of the fuzz targets.
#pragma once

#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/simulated/SimulatedSystemPaths.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

/// Ends the program if a property does not hold, so that the input counts as a crash. Unlike assert(), it is active in
/// every build.
#define FUZZ_CHECK(condition)                                                                      \
  do {                                                                                             \
    if (!(condition)) {                                                                            \
      std::fprintf(stderr, "%s:%d: property does not hold: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                                \
    }                                                                                              \
  } while (false)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

/// A private folder with the library's log, for the life of the program.
class Workplace {
 public:
  Workplace() {
    std::string name = (std::filesystem::temp_directory_path() / "fuzz.XXXXXX").string();
    FUZZ_CHECK(mkdtemp(name.data()) != nullptr);
    folder_ = name;
    log_ = folder_ / "log";
    vorlix::Platform ports = vorlix::platform();
    const auto paths = std::make_shared<vorlix::SimulatedSystemPaths>();
    paths->setLogFile(log_);
    ports.systemPaths = paths;
    before_ = vorlix::setPlatform(std::move(ports));
    emptyLog();
  }
  ~Workplace() {
    vorlix::setPlatform(std::move(before_));
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  Workplace(const Workplace&) = delete;
  Workplace& operator=(const Workplace&) = delete;

  /// Path of the log, for targets that make their own machine.
  std::string log() const { return log_; }

  /// Truncates the log, which would otherwise grow over millions of inputs.
  void emptyLog() const { std::fclose(openForWriting(log_)); }

  /// Writes a file into the folder. @return its path.
  std::string addFile(const std::string& name, const std::string& bytes) const {
    const std::filesystem::path path = folder_ / name;
    std::FILE* const file = openForWriting(path);
    FUZZ_CHECK(std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size());
    FUZZ_CHECK(std::fclose(file) == 0);
    return path;
  }

 private:
  static std::FILE* openForWriting(const std::filesystem::path& path) {
    std::FILE* const file = std::fopen(path.c_str(), "wbe");
    FUZZ_CHECK(file != nullptr);
    return file;
  }

  std::filesystem::path folder_;
  std::filesystem::path log_;
  vorlix::Platform before_;
};

/// Returns `count` bytes at `bytes` as a little-endian number.
inline uint64_t littleEndian(const uint8_t* bytes, size_t count) {
  uint64_t value = 0;
  for (size_t i = 0; i < count; ++i) value |= uint64_t{bytes[i]} << 8 * i;
  return value;
}

}  // namespace fuzz
