// SPDX-License-Identifier: Apache-2.0
#include "SourceFile.h"

#include <Vorlix/ImageSource.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemError.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vorlix {
namespace {

constexpr size_t kSourceStart = size_t{64} << 10;

// A pipe has a name, too: the shell's <(command), or mkfifo's.
bool isPipe(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

}  // namespace

std::shared_ptr<SourceFile> SourceFile::open(const std::string& path, std::string& reason) {
  std::shared_ptr<SourceFile> file(new SourceFile);
  if (path == kStandardInput) {
    file->pipe_ = STDIN_FILENO;
  } else if (isPipe(path)) {
    file->owned_ = Descriptor(aboveStandardStreams(::open(path.c_str(), O_RDONLY | O_CLOEXEC)));
    file->pipe_ = file->owned_.get();
  } else {
    file->handle_ = platform().deviceFile->open(path, DeviceAccess::readOnly, DeviceLock::none);
  }
  if ((file->handle_ == nullptr && file->pipe_ < 0) || !file->readStart()) {
    reason = SystemError{errno}.reason();
    return nullptr;
  }
  return file;
}

std::shared_ptr<SourceFile> SourceFile::over(std::unique_ptr<DeviceHandle> handle, std::string& reason) {
  std::shared_ptr<SourceFile> file(new SourceFile);
  file->handle_ = std::move(handle);
  if (file->readStart()) return file;
  reason = SystemError{errno}.reason();
  return nullptr;
}

SourceFile::~SourceFile() = default;

bool SourceFile::readStart() {
  std::vector<uint8_t> start(kSourceStart);
  size_t done = 0;
  while (done < start.size()) {
    const ssize_t step = readNext(start.data() + done, start.size() - done);
    if (step < 0) return false;
    if (step == 0) break;
    done += static_cast<size_t>(step);
    position_ += static_cast<uint64_t>(step);
  }
  start.resize(done);
  start_ = std::move(start);
  position_ = 0;
  return true;
}

// From behind the start.
ssize_t SourceFile::readNext(void* buffer, size_t count) {
  if (handle_ != nullptr) return handle_->readAt(buffer, count, position_);
  for (;;) {
    const ssize_t step = ::read(pipe_, buffer, count);
    if (step >= 0 || errno != EINTR) return step;
  }
}

ssize_t SourceFile::read(void* buffer, size_t count) {
  ssize_t done = 0;
  if (position_ < start_.size()) {
    done = static_cast<ssize_t>(std::min<uint64_t>(count, start_.size() - position_));
    std::memcpy(buffer, start_.data() + position_, static_cast<size_t>(done));
  } else {
    done = readNext(buffer, count);
  }
  if (done > 0) position_ += static_cast<uint64_t>(done);
  return done;
}

std::optional<uint64_t> SourceFile::size() const {
  return handle_ == nullptr ? std::nullopt : handle_->size();
}

bool SourceFile::seek(uint64_t offset) {
  if (handle_ == nullptr) {
    errno = ESPIPE;
    return false;
  }
  position_ = offset;
  return true;
}

std::optional<DataRun> SourceFile::dataFrom(uint64_t offset) const {
  return handle_ == nullptr ? std::nullopt : handle_->dataFrom(offset);
}

std::optional<DeviceIdentity> SourceFile::identity() const {
  return handle_ == nullptr ? std::nullopt : handle_->identity();
}

}  // namespace vorlix
