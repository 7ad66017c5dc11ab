// SPDX-License-Identifier: Apache-2.0
#include "HiveFile.h"

#include <Vorlix/foundation/LittleEndian.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "Failure.h"

namespace vorlix::registry {
namespace {

// The base block, after the Windows registry file format specification (Suhanov): "regf" at offset 0, the size of all
// bins at offset 40. The bins follow the base block. A hive has a base block and at least one bin.
constexpr uint64_t kBaseBlockSize = 4096;
constexpr uint64_t kSmallestBin = 4096;
constexpr std::string_view kSignature = "regf";
constexpr size_t kBinsSizeOffset = 40;

// Offsets within a hive have 32 bits and count from the end of the base block.
constexpr uint64_t kLargestHive = kBaseBlockSize + UINT32_MAX;

class Descriptor {
 public:
  // O_NONBLOCK: opening a FIFO does not wait for a writer.
  explicit Descriptor(const std::string& path) : number_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number() const { return number_; }

 private:
  int number_;
};

}  // namespace

uint64_t checkedHiveSize(const std::string& path) {
  const Descriptor file(path);
  struct stat status = {};
  if (file.number() < 0 || fstat(file.number(), &status) != 0) throw Failure(std::strerror(errno));
  if (S_ISDIR(status.st_mode)) throw Failure("a folder, not a registry hive");
  if (!S_ISREG(status.st_mode)) throw Failure("not a regular file");

  std::array<uint8_t, kBinsSizeOffset + 4> header = {};
  const ssize_t length = pread(file.number(), header.data(), header.size(), 0);
  if (length < 0) throw Failure(std::strerror(errno));
  if (std::memcmp(header.data(), kSignature.data(), kSignature.size()) != 0) throw Failure("not a registry hive");

  const auto size = static_cast<uint64_t>(status.st_size);
  const uint64_t whole = kBaseBlockSize + std::max<uint64_t>(littleEndian32(&header[kBinsSizeOffset]), kSmallestBin);
  if (size < whole) {
    throw Failure("truncated hive: " + std::to_string(size) + " bytes, but its header requires " +
                  std::to_string(whole));
  }
  if (size > kLargestHive) throw Failure("larger than a registry hive can be");
  return size;
}

}  // namespace vorlix::registry
