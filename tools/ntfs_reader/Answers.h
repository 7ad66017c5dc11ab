// SPDX-License-Identifier: Apache-2.0
//
// What the library asks and what it is told, over one socket. All numbers are little-endian.
//
// A request is the letter L (the items of a folder) or R (a file), 8 bytes with the largest number of bytes to be read
// of the file, 4 bytes with the length of a path, and the path.
//
// An answer is a sequence of frames: a letter, 4 bytes with the length of what follows, and that. Frames D have
// content, which a frame E (all of it was sent) or F (the reason why it was not) ends. The content of a folder is its
// items: 1 if it is a folder or else 0, 8 bytes with the size of the file, 2 bytes with the length of the name, and the
// name. The first frame, E or F, answers no request: it says whether the volume could be opened.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Volume.h"

namespace vorlix::ntfs {

struct Request {
  bool isList = false;
  uint64_t count = 0;
  std::string path;
};

/// Waits for a request. Absent when the library closed the socket, or asks for what it never would.
std::optional<Request> nextRequest(int socket);

/// Sends one answer. All functions throw Failure if the library is gone.
class Answer {
 public:
  explicit Answer(int socket) : socket_(socket) {}

  void add(const Item& item);
  void add(const uint8_t* bytes, size_t count);

  void end();
  void fail(const std::string& reason);

 private:
  void flush();
  void send(char letter, const uint8_t* bytes, size_t count) const;

  int socket_;
  std::vector<uint8_t> pending_;
};

}  // namespace vorlix::ntfs
