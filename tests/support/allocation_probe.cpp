// SPDX-License-Identifier: Apache-2.0
//
// Prints what the library takes for the bytes in use of a volume, for tests in other languages, as JSON:
//
//     allocation_probe FILE    {"fileSystem": ..., "clusterSize": ..., "doubt": ..., "used": [[offset, size], ...]}
#include <Vorlix/Allocation.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>

int main(int argc, char** argv) {
  const int file = argc == 2 ? open(argv[1], O_RDONLY | O_CLOEXEC) : -1;
  struct stat status = {};
  if (file < 0 || fstat(file, &status) != 0) {
    std::perror("allocation_probe");
    return 2;
  }
  const auto read = [&](uint64_t offset, std::span<uint8_t> bytes) {
    const ssize_t got = pread(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    return got < 0 ? size_t{0} : static_cast<size_t>(got);
  };
  const vorlix::Allocation found = vorlix::readAllocation(read, static_cast<uint64_t>(status.st_size));
  nlohmann::ordered_json document = {{"fileSystem", found.fileSystem},
                                     {"clusterSize", found.clusterSize},
                                     {"doubt", found.doubt},
                                     {"used", nlohmann::ordered_json::array()}};
  for (const vorlix::ByteRange& range : found.used) document["used"].push_back({range.offset, range.size});
  std::puts(document.dump().c_str());
  return 0;
}
