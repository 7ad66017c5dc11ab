// SPDX-License-Identifier: Apache-2.0
#include "Unpacker.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include "PackedSizes.h"

namespace vorlix {
namespace {

std::unique_ptr<Unpacker> openUnpacker(PackedFormat format, const PackedFile& file, std::string& reason) {
  uint64_t start = 0;
  std::optional<uint64_t> size;
  if (file.size()) {
    if (format == PackedFormat::xz) size = xzSize(file);
    if (format == PackedFormat::zstd) size = zstdSize(file);
    if (format == PackedFormat::zip) {
      const auto found = findZippedFile(file, reason);
      if (!found) return nullptr;
      start = found->headerOffset;
      size = found->size;
    }
    if (start > *file.size() || !file.seek(start)) {
      reason = "the packed file cannot be sought in as its directory says";
      return nullptr;
    }
  }
  return format == PackedFormat::gzip ? openGzip(file, reason) : openArchive(format, file, size, reason);
}

void* openByTable(int format, const PackedCalls* calls, char* reason, size_t room) {
  std::string text;
  try {
    if (auto unpacker = openUnpacker(static_cast<PackedFormat>(format), PackedFile(*calls), text)) {
      return unpacker.release();
    }
  } catch (const std::exception& error) {
    text = error.what();
  }
  const size_t length = std::min(text.size(), room - 1);
  std::memcpy(reason, text.data(), length);
  reason[length] = '\0';
  return nullptr;
}

ssize_t readByTable(void* unpacker, void* buffer, size_t count) {
  return static_cast<Unpacker*>(unpacker)->read(buffer, count);
}

int64_t sizeByTable(void* unpacker) {
  const auto size = static_cast<Unpacker*>(unpacker)->size();
  return size ? static_cast<int64_t>(*size) : -1;
}

const char* reasonByTable(void* unpacker) {
  return static_cast<Unpacker*>(unpacker)->reason().c_str();
}

void closeByTable(void* unpacker) {
  delete static_cast<Unpacker*>(unpacker);
}

}  // namespace

const UnpackerTable* unpackerTable(std::string&) {
  static constexpr UnpackerTable kTable = {openByTable, readByTable, sizeByTable, reasonByTable, closeByTable};
  return &kTable;
}

}  // namespace vorlix
