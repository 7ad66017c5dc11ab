// SPDX-License-Identifier: Apache-2.0
//
// Reads folders and files of an NTFS volume for the library, which starts this program when it needs one. Standard
// input is a socket (Answers.h); descriptor 3 is the device, open for reading. The arguments are the volume's offset
// and size.
#include <sys/stat.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <new>
#include <optional>
#include <string_view>

#include "Answers.h"
#include "Confinement.h"
#include "Volume.h"

namespace {

using vorlix::ntfs::Answer;

enum ExitStatus : int { kDone = 0, kError = 2 };

constexpr int kSocket = 0;
constexpr int kDevice = 3;

std::optional<uint64_t> numberIn(std::string_view text) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isWhole = error == std::errc() && end == text.data() + text.size();
  return isWhole && number <= INT64_MAX / 2 ? std::optional(number) : std::nullopt;
}

void answer(const vorlix::ntfs::Volume& volume, const vorlix::ntfs::Request& request) {
  Answer answer(kSocket);
  try {
    if (request.isList) {
      volume.list(request.path, [&](const vorlix::ntfs::Item& item) { answer.add(item); });
    } else {
      volume.read(request.path, request.count, [&](const uint8_t* bytes, size_t count) { answer.add(bytes, count); });
    }
    answer.end();
  } catch (const std::bad_alloc&) {
    answer.fail("damaged NTFS: reading it takes too much memory");
  } catch (const std::exception& reason) {
    answer.fail(reason.what());
  }
}

int serve(uint64_t offset, uint64_t size) {
  try {
    std::optional<vorlix::ntfs::Volume> volume;
    try {
      vorlix::ntfs::confine();
      volume.emplace(kDevice, offset, size);
    } catch (const std::exception& reason) {
      Answer(kSocket).fail(reason.what());
      return kError;
    }
    Answer(kSocket).end();
    while (const auto request = vorlix::ntfs::nextRequest(kSocket)) answer(*volume, *request);
    return kDone;
  } catch (const std::exception&) {  // the library is gone
    return kError;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && argv[1] == std::string_view("--version")) {
    return std::puts("ntfs_reader " VORLIX_VERSION) < 0 ? kError : kDone;
  }
  const auto offset = argc == 3 ? numberIn(argv[1]) : std::nullopt;
  const auto size = argc == 3 ? numberIn(argv[2]) : std::nullopt;
  struct stat status = {};
  if (!offset || !size || fstat(kDevice, &status) != 0) {
    std::fputs("ntfs_reader: the library starts this program; it has no use of its own\n", stderr);
    return kError;
  }
  return serve(*offset, *size);
}
