// SPDX-License-Identifier: Apache-2.0
//
// Runs a fuzz target on files, for compilers without libFuzzer and for the tests.
#include <algorithm>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include "FuzzSupport.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesOf(const fs::path& path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  if (files.empty()) throw std::runtime_error(path.string() + ": no file in this folder");
  std::sort(files.begin(), files.end());
  return files;
}

void run(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (!file.is_open() || file.bad()) throw std::runtime_error(path.string() + ": cannot be read");
  std::cerr << path.filename().string() << '\n';  // identifies the input if the target ends the program
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc < 2) throw std::runtime_error("name the files or folders to run");
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const fs::path& file : filesOf(argv[i])) {
      run(file);
      ++count;
    }
  }
  std::cout << count << " inputs ran\n";
  return 0;
} catch (const std::exception& error) {
  std::cerr << error.what() << '\n';
  return 1;
}
