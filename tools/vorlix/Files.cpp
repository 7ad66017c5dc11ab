// SPDX-License-Identifier: Apache-2.0
#include "Files.h"

#include <Vorlix/platform/Descriptor.h>
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/FilesInPlace.h>
#include <Vorlix/platform/Platform.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Failure.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr size_t kRowSize = 16;
constexpr size_t kReadBlock = size_t{64} * 1024;

std::string rowText(const ByteVector& bytes, size_t offset) {
  std::string text;
  for (size_t i = offset; i < std::min(bytes.size(), offset + kRowSize); ++i) {
    text += (i == offset ? "" : " ") + hexByte(bytes[i]);
  }
  return text;
}

}  // namespace

ByteVector readFile(const std::string& path, size_t limit) {
  // O_NONBLOCK: opening a FIFO does not wait for a writer.
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file) throw Failure::ofErrno(path, errno);
  return readWhole(file.get(), path, limit);
}

ByteVector readWhole(int descriptor, const std::string& path, size_t limit) {
  struct stat status = {};
  if (fstat(descriptor, &status) != 0) throw Failure::ofErrno(path, errno);
  if (!S_ISREG(status.st_mode)) throw Failure(path, "not a regular file");
  ByteVector bytes;
  size_t done = 0;
  // Reads to the end of the file, because its size may change meanwhile.
  for (;;) {
    if (done > limit || static_cast<uint64_t>(status.st_size) > limit) {
      throw Failure(path, "larger than the limit of " + sizeText(limit));
    }
    bytes.resize(std::max(done + kReadBlock, static_cast<size_t>(status.st_size) + 1));
    const ssize_t got = read(descriptor, bytes.data() + done, bytes.size() - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw Failure::ofErrno(path, errno);
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  bytes.resize(done);
  return bytes;
}

void writeAndReadBack(int descriptor, const std::string& path, const ByteVector& bytes, const std::string& state) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t put = write(descriptor, bytes.data() + done, bytes.size() - done);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) throw Failure(path, std::strerror(put < 0 ? errno : ENOSPC), state);
    done += static_cast<size_t>(put);
  }
  if (platform().filesInPlace->sync(descriptor) != 0) throw Failure::ofErrno(path, errno, state);
  platform().filesInPlace->forgetCached(descriptor, 0, bytes.size());
  ByteVector now(bytes.size() + 1);
  size_t done = 0;
  while (done < now.size()) {
    const ssize_t got = pread(descriptor, now.data() + done, now.size() - done, static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw Failure(path, std::string("cannot be read back: ") + std::strerror(errno), state);
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  now.resize(done);
  if (now != bytes) throw Failure(path, "reads back differently from what was written", state);
}

ByteVector readDevice(const std::string& device, uint64_t offset, size_t count) {
  const auto handle = platform().deviceFile->open(device, DeviceAccess::readOnly, DeviceLock::none);
  if (!handle) throw Failure::ofErrno(device, errno);
  return readDevice(*handle, device, offset, count);
}

ByteVector readDevice(DeviceHandle& handle, const std::string& device, uint64_t offset, size_t count) {
  ByteVector bytes(count);
  const ssize_t done = handle.readAt(bytes.data(), count, offset);
  if (done < 0) throw Failure::ofErrno(device, errno);
  if (static_cast<size_t>(done) < count) {
    throw Failure(device, "ends before byte " + std::to_string(offset + count) + ": it is truncated or too small");
  }
  return bytes;
}

std::string differenceText(const ByteVector& before, const ByteVector& after, uint64_t base) {
  std::string text;
  for (size_t offset = 0; offset < std::max(before.size(), after.size()); offset += kRowSize) {
    const std::string from = rowText(before, offset);
    const std::string to = rowText(after, offset);
    if (from == to) continue;
    text += "  " + hexDigits(base + offset, 4) + "  - " + from + "\n        + " + to + "\n";
  }
  return text;
}

Json differenceJson(const ByteVector& before, const ByteVector& after, uint64_t base) {
  Json rows = Json::array();
  for (size_t offset = 0; offset < std::max(before.size(), after.size()); offset += kRowSize) {
    const std::string from = rowText(before, offset);
    const std::string to = rowText(after, offset);
    if (from == to) continue;
    rows.append(Json::object({{"offset", base + offset}, {"before", knownText(from)}, {"after", knownText(to)}}));
  }
  return rows;
}

}  // namespace vorlix::tool
