// SPDX-License-Identifier: Apache-2.0
#include "Backup.h"

#include <Vorlix/foundation/Sha256.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#include "Arbitration.h"
#include "Failure.h"

namespace vorlix::tool {
namespace {

namespace fs = std::filesystem;

constexpr int kMostOfOneName = 10000;

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return number_; }

 private:
  int number_;
};

void writeAll(int descriptor, const std::string& path, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t done = write(descriptor, bytes.data(), bytes.size());
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) throw Failure::ofErrno(path, done < 0 ? errno : ENOSPC);
    bytes = bytes.subspan(static_cast<size_t>(done));
  }
}

void sync(int descriptor, const std::string& path) {
  if (fsync(descriptor) != 0) throw Failure::ofErrno(path, errno);
}

void syncFolder(const std::string& folder) {
  const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened.get() < 0) throw Failure::ofErrno(folder, errno);
  sync(opened.get(), folder);
}

// A complete, synced file under a temporary name, until takeName() gives it the final one.
class UnfinishedFile {
 public:
  UnfinishedFile(const std::string& folder, std::span<const uint8_t> bytes)
      : path_(fs::path(folder) / ".saving-XXXXXX") {
    const Descriptor file(mkstemp(path_.data()));
    if (file.get() < 0) throw Failure::ofErrno(folder, errno);
    try {
      writeAll(file.get(), path_, bytes);
      sync(file.get(), path_);
    } catch (const Failure&) {
      unlink(path_.c_str());
      throw;
    }
  }
  ~UnfinishedFile() { unlink(path_.c_str()); }
  UnfinishedFile(const UnfinishedFile&) = delete;
  UnfinishedFile& operator=(const UnfinishedFile&) = delete;

  // Returns false if the name is taken. Falls back to a rename, which is as atomic, on a file system without hard links
  // (FAT).
  bool takeName(const std::string& name) const {
    if (link(path_.c_str(), name.c_str()) == 0) return true;
    if (errno == EEXIST) return false;
    struct stat status = {};
    if (lstat(name.c_str(), &status) == 0) return false;
    if (rename(path_.c_str(), name.c_str()) == 0) return true;
    throw Failure::ofErrno(name, errno);
  }

 private:
  std::string path_;
};

bool holds(const std::string& path, std::span<const uint8_t> bytes) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (static_cast<uint64_t>(status.st_size) != bytes.size()) return false;
  std::vector<uint8_t> content(bytes.size());
  size_t done = 0;
  while (done < content.size()) {
    const ssize_t step = read(file.get(), content.data() + done, content.size() - done);
    if (step < 0 && errno == EINTR) continue;
    if (step <= 0) return false;
    done += static_cast<size_t>(step);
  }
  // The file may come from a run that was interrupted before its sync.
  return std::equal(content.begin(), content.end(), bytes.begin()) && fsync(file.get()) == 0;
}

std::string numbered(const std::string& name, int number) {
  if (number == 1) return name;
  constexpr std::string_view kEnding = ".bin";
  const std::string inserted = "." + std::to_string(number);
  if (!name.ends_with(kEnding)) return name + inserted;
  return name.substr(0, name.size() - kEnding.size()) + inserted + std::string(kEnding);
}

}  // namespace

std::string saveNamed(const std::string& folder, const std::string& name, std::span<const uint8_t> bytes) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) throw Failure(folder, error.message());
  std::optional<UnfinishedFile> fresh;
  for (int number = 1; number <= kMostOfOneName; ++number) {
    const std::string path = fs::path(folder) / numbered(name, number);
    if (!holds(path, bytes)) {
      if (!fresh) fresh.emplace(folder, bytes);
      if (!fresh->takeName(path)) continue;
    }
    syncFolder(folder);
    return path;
  }
  throw Failure(fs::path(folder) / name, "too many files of that name");
}

std::string backupNameOf(const std::string& device) {
  constexpr size_t kDigits = 8;
  const std::string name = bsdNameOf(device);  // the absolute path of an image file
  const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(name.data()), name.size());
  return fs::path(device).filename().string() + "-" + sha256(bytes).substr(0, kDigits);
}

std::string saveBytes(const std::string& folder, const std::string& device, uint64_t offset,
                      std::span<const uint8_t> bytes) {
  return saveNamed(folder, backupNameOf(device) + "-" + std::to_string(offset) + ".bin", bytes);
}

}  // namespace vorlix::tool
