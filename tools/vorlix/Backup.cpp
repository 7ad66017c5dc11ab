// SPDX-License-Identifier: Apache-2.0
#include "Backup.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "Failure.h"

namespace vorlix::tool {
namespace {

class Descriptor {
 public:
  Descriptor(const std::string& path, int flags) : path_(path), number_(open(path.c_str(), flags | O_CLOEXEC, 0644)) {
    if (number_ < 0) throw Failure::ofErrno(path, errno);
  }
  ~Descriptor() { close(number_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  void writeAll(const uint8_t* bytes, size_t count) const {
    while (count > 0) {
      const ssize_t done = write(number_, bytes, count);
      if (done < 0 && errno == EINTR) continue;
      if (done <= 0) throw Failure::ofErrno(path_, done < 0 ? errno : ENOSPC);
      bytes += done;
      count -= static_cast<size_t>(done);
    }
  }

  void sync() const {
    if (fsync(number_) != 0) throw Failure::ofErrno(path_, errno);
  }

 private:
  std::string path_;
  int number_;
};

}  // namespace

std::string saveNamed(const std::string& folder, const std::string& name, std::span<const uint8_t> bytes) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) throw Failure(folder, error.message());
  const std::string path = std::filesystem::path(folder) / name;
  const Descriptor file(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW);
  file.writeAll(bytes.data(), bytes.size());
  file.sync();
  Descriptor(folder, O_RDONLY | O_DIRECTORY).sync();
  return path;
}

std::string saveBytes(const std::string& folder, const std::string& device, uint64_t offset,
                      std::span<const uint8_t> bytes) {
  const std::string deviceName = std::filesystem::path(device).filename();
  return saveNamed(folder, deviceName + "-" + std::to_string(offset) + ".bin", bytes);
}

}  // namespace vorlix::tool
