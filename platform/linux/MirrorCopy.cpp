// SPDX-License-Identifier: Apache-2.0
#include "MirrorCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include <Vorlix/platform/Descriptor.h>
#include "foundation/Zeros.h"

namespace vorlix {
namespace {

Refusal copyFile(const OpenVolume& from, const FatEntry& entry, const std::string& path) {
  const Descriptor file(
      aboveStandardStreams(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)));
  if (!file) return dissenterFor(errno, path);
  const Refusal refusal = from.volume.readFile(from.descriptor, from.window, entry,
                                               [&](uint64_t offset, const uint8_t* bytes, size_t count) {
                                                 return writePiece(file.get(), path, bytes, count, offset);
                                               });
  if (refusal) return refusal;
  // Zeros at the end were not written.
  if (ftruncate(file.get(), static_cast<off_t>(entry.size)) != 0) return dissenterFor(errno, path);
  const timespec modified = {static_cast<time_t>(modificationTime(entry)), 0};
  const std::array<timespec, 2> times = {modified, modified};
  if (futimens(file.get(), times.data()) != 0) return dissenterFor(errno, path);
  return std::nullopt;
}

// A file of the system that is compared piece by piece.
class ComparedFile {
 public:
  explicit ComparedFile(const std::string& path)
      : path_(path), file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)) {
    struct stat status = {};
    if (!file_ || fstat(file_.get(), &status) != 0) {
      error_ = errno;
    } else {
      size_ = static_cast<uint64_t>(status.st_size);
    }
  }

  int error() const { return error_; }
  uint64_t size() const { return size_; }

  Refusal failure() const { return dissenterFor(error_, path_); }

  // Returns whether the file has these bytes at `offset`, and only zeros between the previous piece and them.
  bool has(uint64_t offset, const uint8_t* bytes, size_t count) {
    if (!hasZerosTo(offset) || !readAt(offset, count)) return false;
    place_ = offset + count;
    return std::memcmp(piece_.data(), bytes, count) == 0;
  }

  bool hasZerosTo(uint64_t end) {
    while (place_ < end) {
      const off_t data = lseek(file_.get(), static_cast<off_t>(place_), SEEK_DATA);
      if (data < 0 && errno == ENXIO) break;
      if (data >= 0) place_ = std::min(end, static_cast<uint64_t>(data));
      const auto count = static_cast<size_t>(std::min<uint64_t>(kFatPiece, end - place_));
      if (!readAt(place_, count)) return false;
      if (!areZeros(std::span(piece_).first(count))) return false;
      place_ += count;
    }
    place_ = end;
    return true;
  }

 private:
  bool readAt(uint64_t offset, size_t count) {
    piece_.resize(std::max(piece_.size(), count));
    size_t done = 0;
    while (done < count) {
      const ssize_t got = pread(file_.get(), piece_.data() + done, count - done, static_cast<off_t>(offset + done));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) error_ = errno;
      if (got <= 0) return false;
      done += static_cast<size_t>(got);
    }
    return true;
  }

  const std::string& path_;
  Descriptor file_;
  std::vector<uint8_t> piece_;
  uint64_t size_ = 0;
  uint64_t place_ = 0;
  int error_ = 0;
};

}  // namespace

Refusal writePiece(int file, const std::string& path, const uint8_t* bytes, size_t count, uint64_t offset) {
  size_t done = 0;
  while (done < count) {
    const ssize_t put = pwrite(file, bytes + done, count - done, static_cast<off_t>(offset + done));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return dissenterFor(put == 0 ? ENOSPC : errno, path);
    done += static_cast<size_t>(put);
  }
  return std::nullopt;
}

Refusal copyVolumeTo(const OpenVolume& from, const std::string& folder) {
  for (const FatEntry& entry : from.volume.entries()) {
    const std::string path = folder + entry.path;
    if (!entry.isFolder) {
      if (Refusal refusal = copyFile(from, entry, path)) return refusal;
    } else if (mkdir(path.c_str(), 0700) != 0) {
      return dissenterFor(errno, path);
    }
  }
  // A mirror that lost data in a power failure would look like one that somebody has changed.
  const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened || syncfs(opened.get()) != 0) return dissenterFor(errno, folder);
  for (const FatEntry& entry : from.volume.entries()) {
    if (entry.isFolder) continue;
    bool isEqual = false;
    if (Refusal refusal = compareFile(from, entry, folder + entry.path, isEqual)) return refusal;
    if (!isEqual) return Dissenter{kDissentError, folder + entry.path + " was not copied whole"};
  }
  return std::nullopt;
}

Refusal compareFile(const OpenVolume& from, const FatEntry& entry, const std::string& file, bool& isEqual) {
  ComparedFile compared(file);
  if (compared.error() != 0) return compared.failure();
  isEqual = compared.size() == entry.size;
  if (!isEqual) return std::nullopt;
  const Refusal unread = from.volume.readFile(from.descriptor, from.window, entry,
                                              [&](uint64_t offset, const uint8_t* bytes, size_t count) -> Refusal {
                                                isEqual = isEqual && compared.has(offset, bytes, count);
                                                return std::nullopt;
                                              });
  if (unread) return unread;
  isEqual = isEqual && compared.hasZerosTo(entry.size);
  if (compared.error() != 0) return compared.failure();
  return std::nullopt;
}

}  // namespace vorlix
