// SPDX-License-Identifier: Apache-2.0
#include "PipeOutput.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace vorlix {
namespace {

// What pipes hold on the systems that this runs on.
constexpr size_t kLargestChunk = 64 * 1024;

}  // namespace

Data PipeOutput::read() {
  std::array<uint8_t, kLargestChunk> buffer;
  ssize_t got = -1;
  do got = ::read(readEnd_.get(), buffer.data(), buffer.size());
  while (got < 0 && errno == EINTR);
  if (got <= 0) {  // what cannot be read any more has ended
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
  // An ended pipe is always readable; watching it would keep the loop from sleeping. Without a timer the read does not
  // complete: nobody waits for what can only be empty.
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
