// SPDX-License-Identifier: Apache-2.0
#include "Answers.h"

#include <Vorlix/foundation/LittleEndian.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "Failure.h"

namespace vorlix::ntfs {
namespace {

constexpr size_t kLongestPath = 32 * 1024;
constexpr size_t kLargestFrame = size_t{1} << 20;
constexpr size_t kHeader = 1 + 8 + 4;

bool receive(int socket, uint8_t* bytes, size_t count) {
  while (count > 0) {
    const ssize_t got = ::read(socket, bytes, count);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    bytes += got;
    count -= static_cast<size_t>(got);
  }
  return true;
}

void sendAll(int socket, const uint8_t* bytes, size_t count) {
  while (count > 0) {
    const ssize_t sent = ::write(socket, bytes, count);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) throw Failure("nobody waits for the answer");
    bytes += sent;
    count -= static_cast<size_t>(sent);
  }
}

void append(std::vector<uint8_t>& bytes, uint64_t number, size_t size) {
  for (size_t i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(number >> (8 * i)));
}

}  // namespace

std::optional<Request> nextRequest(int socket) {
  std::array<uint8_t, kHeader> header = {};
  if (!receive(socket, header.data(), header.size())) return std::nullopt;
  Request request;
  request.isList = header[0] == 'L';
  request.count = littleEndian(header.data() + 1, 8);
  const auto length = static_cast<size_t>(littleEndian(header.data() + 9, 4));
  if ((!request.isList && header[0] != 'R') || length > kLongestPath) return std::nullopt;
  std::vector<uint8_t> path(length);
  if (!receive(socket, path.data(), path.size())) return std::nullopt;
  request.path.assign(path.begin(), path.end());
  if (!request.path.empty() && request.path.front() != '/') return std::nullopt;
  return request;
}

void Answer::add(const Item& item) {
  pending_.push_back(item.isFolder ? 1 : 0);
  append(pending_, item.size, 8);
  append(pending_, item.name.size(), 2);
  pending_.insert(pending_.end(), item.name.begin(), item.name.end());
  if (pending_.size() > kLargestFrame / 2) flush();
}

void Answer::add(const uint8_t* bytes, size_t count) {
  flush();
  while (count > 0) {
    const size_t piece = std::min(count, kLargestFrame);
    send('D', bytes, piece);
    bytes += piece;
    count -= piece;
  }
}

void Answer::flush() {
  if (!pending_.empty()) send('D', pending_.data(), pending_.size());
  pending_.clear();
}

void Answer::end() {
  flush();
  send('E', nullptr, 0);
}

void Answer::fail(const std::string& reason) {
  send('F', reinterpret_cast<const uint8_t*>(reason.data()), std::min(reason.size(), kLargestFrame));
}

void Answer::send(char letter, const uint8_t* bytes, size_t count) const {
  std::vector<uint8_t> header = {static_cast<uint8_t>(letter)};
  append(header, count, 4);
  sendAll(socket_, header.data(), header.size());
  sendAll(socket_, bytes, count);
}

}  // namespace vorlix::ntfs
