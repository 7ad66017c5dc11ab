// SPDX-License-Identifier: Apache-2.0
#include "PipeOutput.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace vorlix {
namespace {

// The capacity of pipes on the supported systems.
constexpr size_t kLargestChunk = 64 * 1024;

}  // namespace

Data PipeOutput::read() {
  std::array<uint8_t, kLargestChunk> buffer;
  ssize_t got = -1;
  do got = ::read(readEnd_.get(), buffer.data(), buffer.size());
  while (got < 0 && errno == EINTR);
  if (got <= 0) {  // an error counts as the end
    ended_ = true;
    return {};
  }
  return Data(buffer.begin(), buffer.begin() + got);
}

Data PipeOutput::readAvailable() {
  pollfd looked{readEnd_.get(), POLLIN, 0};
  return poll(&looked, 1, 0) > 0 ? read() : Data();
}

void PipeOutput::readInBackground(Completion completion) {
  cancelBackgroundRead();
  auto handler = [this] { complete(); };
  // A pipe at its end is always readable, so watching it would keep the loop from sleeping. If there is no timer, the
  // read does not complete; its chunk would be empty anyway.
  source_ = ended_ ? callAfter(kEndedReadInterval, handler) : watchDescriptor(readEnd_.get(), handler);
  completion_ = std::move(completion);
}

void PipeOutput::cancelBackgroundRead() {
  source_.reset();
  completion_ = nullptr;
}

void PipeOutput::complete() {
  const Data chunk = ended_ ? Data() : read();
  const Completion completion = std::exchange(completion_, nullptr);
  source_.reset();
  completion(chunk);  // this may be gone afterwards
}

}  // namespace vorlix
