// SPDX-License-Identifier: Apache-2.0
#include <zlib.h>

#include <Vorlix/platform/SystemError.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <vector>

#include "Unpacker.h"

namespace vorlix {
namespace {

constexpr size_t kPackedInput = size_t{256} << 10;
constexpr int kGzipOnly = 16;  // added to the window's bits: a gzip header, and no zlib header

class GzipUnpacker final : public Unpacker {
 public:
  explicit GzipUnpacker(const PackedFile& file) : file_(file), input_(kPackedInput) {}
  ~GzipUnpacker() override {
    if (isOpen_) inflateEnd(&stream_);
  }
  GzipUnpacker(const GzipUnpacker&) = delete;
  GzipUnpacker& operator=(const GzipUnpacker&) = delete;

  bool open() {
    isOpen_ = inflateInit2(&stream_, MAX_WBITS + kGzipOnly) == Z_OK;
    return isOpen_;
  }

  ssize_t read(void* buffer, size_t count) override {
    if (!reason_.empty()) return -1;
    count = std::min<size_t>(count, std::numeric_limits<int>::max());
    stream_.next_out = static_cast<Bytef*>(buffer);
    stream_.avail_out = static_cast<uInt>(count);
    while (stream_.avail_out > 0 && !isDone_) {
      if (!step()) return -1;
    }
    return static_cast<ssize_t>(count - stream_.avail_out);
  }

 private:
  // Has input in the buffer, or none at the end of the file. @return false on failure.
  bool fill() {
    if (stream_.avail_in > 0) return true;
    const ssize_t count = file_.read(input_.data(), input_.size());
    if (count < 0) return fail(SystemError{errno}.reason()) == 0;
    stream_.next_in = input_.data();
    stream_.avail_in = static_cast<uInt>(count);
    return true;
  }

  bool step() {
    if (!fill()) return false;
    if (isBetweenMembers_) return beginMember();
    if (stream_.avail_in == 0) return fail("truncated gzip input") == 0;
    const int result = inflate(&stream_, Z_NO_FLUSH);
    if (result == Z_STREAM_END) {
      isBetweenMembers_ = true;
      return true;
    }
    if (result == Z_OK || result == Z_BUF_ERROR) return true;
    if (result == Z_MEM_ERROR) return fail(SystemError{ENOMEM}.reason()) == 0;
    return fail(std::string("damaged gzip input: ") + (stream_.msg == nullptr ? "no such data" : stream_.msg)) == 0;
  }

  // Several members make one file, and tapes fill the last block with zeros.
  bool beginMember() {
    while (stream_.avail_in > 0 && *stream_.next_in == 0) {
      isPadding_ = true;
      ++stream_.next_in;
      --stream_.avail_in;
    }
    if (stream_.avail_in == 0) {
      if (!fill()) return false;
      if (stream_.avail_in == 0) isDone_ = true;
      return true;
    }
    constexpr Bytef kFirstOfMagic = 0x1F;
    if (isPadding_ || *stream_.next_in != kFirstOfMagic) return fail("something else follows the gzip data") == 0;
    isBetweenMembers_ = false;
    return inflateReset(&stream_) == Z_OK || fail("damaged gzip input") == 0;
  }

  PackedFile file_;
  std::vector<Bytef> input_;
  z_stream stream_ = {};
  bool isOpen_ = false;
  bool isBetweenMembers_ = false;
  bool isPadding_ = false;
  bool isDone_ = false;
};

}  // namespace

std::unique_ptr<Unpacker> openGzip(const PackedFile& file, std::string& reason) {
  auto unpacker = std::make_unique<GzipUnpacker>(file);
  if (unpacker->open()) return unpacker;
  reason = SystemError{ENOMEM}.reason();
  return nullptr;
}

}  // namespace vorlix
