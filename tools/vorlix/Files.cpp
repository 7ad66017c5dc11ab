// SPDX-License-Identifier: Apache-2.0
#include "Files.h"

#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "Failure.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr size_t kRowSize = 16;

std::string rowText(const ByteVector& bytes, size_t offset) {
  std::string text;
  for (size_t i = offset; i < std::min(bytes.size(), offset + kRowSize); ++i) {
    text += (i == offset ? "" : " ") + hexByte(bytes[i]);
  }
  return text;
}

}  // namespace

ByteVector readFile(const std::string& path, size_t limit) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (status.type() == std::filesystem::file_type::not_found) throw Failure::ofErrno(path, ENOENT);
  if (error) throw Failure(path, error.message());
  if (!std::filesystem::is_regular_file(status)) throw Failure(path, "not a regular file");
  if (std::filesystem::file_size(path, error) > limit) {
    throw Failure(path, "larger than the " + sizeText(limit) + " that are read");
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) throw Failure::ofErrno(path, errno);
  ByteVector bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) throw Failure(path, "cannot be read");
  return bytes;
}

ByteVector readDevice(const std::string& device, uint64_t offset, size_t count) {
  const auto handle = platform().deviceFile->open(device, DeviceAccess::readOnly, DeviceLock::none);
  if (!handle) throw Failure::ofErrno(device, errno);
  ByteVector bytes(count);
  const ssize_t done = handle->readAt(bytes.data(), count, offset);
  if (done < 0) throw Failure::ofErrno(device, errno);
  if (static_cast<size_t>(done) < count) {
    throw Failure(device, "ends before byte " + std::to_string(offset + count));
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

}  // namespace vorlix::tool
