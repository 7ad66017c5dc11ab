// SPDX-License-Identifier: Apache-2.0
#include "Content.h"

#include <Vorlix/platform/SystemError.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vorlix {
namespace {

constexpr size_t kContentStart = size_t{64} << 10;
constexpr size_t kDropped = size_t{256} << 10;  // at once

}  // namespace

bool Content::begin() {
  if (unpacked_ == nullptr) return true;
  std::vector<uint8_t> start(kContentStart);
  const auto count = read(start);
  if (!count) return false;
  start.resize(*count);
  start_ = std::move(start);
  position_ = 0;
  return true;
}

ssize_t Content::readNext(uint8_t* buffer, size_t count) {
  if (unpacked_ == nullptr) {
    const ssize_t done = file_->read(buffer, count);
    if (done < 0) reason_ = SystemError{errno}.reason();
    return done;
  }
  if (position_ < start_.size()) {
    const auto done = static_cast<size_t>(std::min<uint64_t>(count, start_.size() - position_));
    std::memcpy(buffer, start_.data() + position_, done);
    return static_cast<ssize_t>(done);
  }
  const ssize_t done = unpacked_->read(buffer, count);
  if (done < 0) reason_ = unpacked_->reason();
  return done;
}

std::optional<size_t> Content::read(std::span<uint8_t> buffer) {
  if (!reason_.empty()) return std::nullopt;
  size_t done = 0;
  while (done < buffer.size()) {
    const ssize_t step = readNext(buffer.data() + done, buffer.size() - done);
    if (step < 0) return std::nullopt;
    if (step == 0) break;
    done += static_cast<size_t>(step);
    position_ += static_cast<uint64_t>(step);
  }
  return done;
}

bool Content::moveTo(uint64_t offset) {
  if (!isSequential()) {
    position_ = offset;
    return file_->seek(offset);
  }
  std::vector<uint8_t> dropped;
  while (position_ < offset) {
    if (dropped.empty()) dropped.resize(std::min<uint64_t>(kDropped, offset - position_));
    const size_t count = std::min<uint64_t>(dropped.size(), offset - position_);
    const auto done = read(std::span(dropped).first(count));
    if (!done) return false;
    if (*done < count) break;
  }
  return true;
}

}  // namespace vorlix
