// SPDX-License-Identifier: Apache-2.0
#include <archive.h>
#include <archive_entry.h>

#include <Vorlix/platform/SystemError.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "Unpacker.h"

namespace vorlix {
namespace {

constexpr size_t kInput = size_t{256} << 10;

int filterOf(PackedFormat format) {
  switch (format) {
    case PackedFormat::xz:
      return ARCHIVE_FILTER_XZ;
    case PackedFormat::zstd:
      return ARCHIVE_FILTER_ZSTD;
    case PackedFormat::bzip2:
      return ARCHIVE_FILTER_BZIP2;
    case PackedFormat::gzip:
      return ARCHIVE_FILTER_GZIP;
    case PackedFormat::zip:
      break;
  }
  return ARCHIVE_FILTER_NONE;
}

class ArchiveUnpacker final : public Unpacker {
 public:
  ArchiveUnpacker(const PackedFile& file, PackedFormat format) : file_(file), format_(format), input_(kInput) {}
  ~ArchiveUnpacker() override { archive_read_free(archive_); }
  ArchiveUnpacker(const ArchiveUnpacker&) = delete;
  ArchiveUnpacker& operator=(const ArchiveUnpacker&) = delete;

  // @param known  the size. A zip file's directory has told it, and that there is one file.
  bool open(std::optional<uint64_t> known) {
    archive_ = archive_read_new();
    if (archive_ == nullptr) return fail(SystemError{ENOMEM}.reason()) == 0;
    size_ = known;
    isOnlyFile_ = known.has_value();
    int result = ARCHIVE_OK;
    if (format_ == PackedFormat::zip) {
      result = archive_read_support_format_zip_streamable(archive_);
    } else {
      result = archive_read_support_format_raw(archive_);
      // A filter that is named is taken once, so what is packed twice is unpacked once.
      if (result == ARCHIVE_OK) result = archive_read_append_filter(archive_, filterOf(format_));
    }
    if (result != ARCHIVE_OK) return failAsTold() == 0;
    result = archive_read_open(archive_, this, nullptr, readInput, nullptr);
    if (result == ARCHIVE_OK && format_ == PackedFormat::zip) return findFile();
    archive_entry* entry = nullptr;
    if (result == ARCHIVE_OK) result = archive_read_next_header(archive_, &entry);
    if (result == ARCHIVE_OK) return true;
    failAsTold();  // for data that begin nowhere, something that people cannot guess
    return inputReason_.empty() && fail("it is empty, truncated or damaged: " + reason_) == 0;
  }

  ssize_t read(void* buffer, size_t count) override {
    if (!reason_.empty()) return -1;
    size_t done = 0;
    while (done < count && !isDone_) {
      if (blockSize_ == 0) {
        if (!nextBlock()) return -1;
        continue;
      }
      const size_t step = std::min(count - done, blockSize_);
      std::memcpy(static_cast<char*>(buffer) + done, block_, step);
      block_ += step;
      blockSize_ -= step;
      done += step;
    }
    return static_cast<ssize_t>(done);
  }

 private:
  static la_ssize_t readInput(archive* opened, void* self, const void** bytes) {
    auto& unpacker = *static_cast<ArchiveUnpacker*>(self);
    const ssize_t count = unpacker.file_.read(unpacker.input_.data(), unpacker.input_.size());
    if (count < 0) {
      unpacker.inputReason_ = SystemError{errno}.reason();
      archive_set_error(opened, errno, "%s", unpacker.inputReason_.c_str());
      return ARCHIVE_FATAL;
    }
    unpacker.given_ += count;
    *bytes = unpacker.input_.data();
    return count;
  }

  ssize_t failAsTold() {
    if (!inputReason_.empty()) return fail(inputReason_);
    const char* const told = archive_error_string(archive_);
    return fail(told == nullptr ? "damaged input" : told);
  }

  // Goes to the one regular file of a zip file.
  bool findFile() {
    archive_entry* entry = nullptr;
    const int result = nextFile(&entry);
    if (result == ARCHIVE_EOF) return fail("there is no file in the zip file") == 0;
    if (result != ARCHIVE_OK) return failAsTold() == 0;
    if (archive_entry_is_encrypted(entry) != 0) return fail("the zip file is encrypted") == 0;
    if (!size_ && archive_entry_size_is_set(entry) != 0 && archive_entry_size(entry) > 0) {
      size_ = static_cast<uint64_t>(archive_entry_size(entry));
    }
    return true;
  }

  int nextFile(archive_entry** entry) {
    for (;;) {
      const int result = archive_read_next_header(archive_, entry);
      if (result != ARCHIVE_OK) return result == ARCHIVE_WARN ? ARCHIVE_OK : result;
      if (archive_entry_filetype(*entry) != AE_IFREG) continue;
      const char* const name = archive_entry_pathname(*entry);
      if (name != nullptr && std::string_view(name).starts_with("__MACOSX/")) continue;
      return result;
    }
  }

  bool nextBlock() {
    const void* bytes = nullptr;
    la_int64_t offset = 0;
    const int result = archive_read_data_block(archive_, &bytes, &blockSize_, &offset);
    if (result == ARCHIVE_EOF) return finish();
    if (result != ARCHIVE_OK) {  // a wrong checksum is a warning only
      blockSize_ = 0;
      return failAsTold() == 0;
    }
    if (offset != position_) return fail("damaged input") == 0;
    block_ = static_cast<const char*>(bytes);
    position_ += static_cast<la_int64_t>(blockSize_);
    return true;
  }

  // Looks at what follows the data.
  bool finish() {
    blockSize_ = 0;
    if (format_ == PackedFormat::zip) {
      archive_entry* entry = nullptr;
      const int result = isOnlyFile_ ? ARCHIVE_EOF : nextFile(&entry);
      if (result == ARCHIVE_OK) return fail("there are several files in the zip file") == 0;
      if (result != ARCHIVE_EOF) return failAsTold() == 0;
    } else if (archive_filter_bytes(archive_, -1) != given_ || file_.read(input_.data(), 1) != 0) {
      return fail("something else follows the packed data") == 0;
    }
    isDone_ = true;
    return true;
  }

  PackedFile file_;
  PackedFormat format_;
  std::vector<char> input_;
  archive* archive_ = nullptr;
  const char* block_ = nullptr;
  size_t blockSize_ = 0;
  la_int64_t position_ = 0;  // behind the block
  la_int64_t given_ = 0;     // bytes of the file that libarchive got
  std::string inputReason_;
  bool isOnlyFile_ = false;
  bool isDone_ = false;
};

}  // namespace

std::unique_ptr<Unpacker> openArchive(PackedFormat format, const PackedFile& file, std::optional<uint64_t> size,
                                      std::string& reason) {
  auto unpacker = std::make_unique<ArchiveUnpacker>(file, format);
  if (unpacker->open(size)) return unpacker;
  reason = unpacker->reason();
  return nullptr;
}

}  // namespace vorlix
