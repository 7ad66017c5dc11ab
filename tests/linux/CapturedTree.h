// SPDX-License-Identifier: Apache-2.0
//
// A temporary folder, and a captured machine unpacked into one (tests/data/sys/README.md describes the format).
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace vorlix::test {

/// An empty folder, which is removed with its content.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "vorlix-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
    path_ = name;
  }
  ~TemporaryFolder() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// Unpacks a machine's description below `top`. @throws std::runtime_error for a line of unknown form.
inline void unpackMachine(std::istream& description, const std::filesystem::path& top) {
  std::filesystem::path folder = top;
  for (std::string line; std::getline(description, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line.front() == '[' && line.back() == ']') {
      folder = top / line.substr(1, line.size() - 2);
      std::filesystem::create_directories(folder);
      continue;
    }
    const size_t link = line.find(" -> ");
    const size_t text = line.find(" = ");
    if (link != std::string::npos) {
      std::filesystem::create_directory_symlink(line.substr(link + 4), folder / line.substr(0, link));
    } else if (text != std::string::npos) {
      std::string content = line.substr(text + 3);
      if (content.size() > 1 && content.front() == '"' && content.back() == '"') {
        content = content.substr(1, content.size() - 2);
      }
      std::ofstream(folder / line.substr(0, text), std::ios::app) << content << '\n';
    } else {
      throw std::runtime_error("unknown form of line: " + line);
    }
  }
}

/// A machine from tests/data/sys, unpacked into a temporary folder.
class CapturedTree {
 public:
  explicit CapturedTree(const std::string& machine) {
    std::ifstream description(std::string(VORLIX_TEST_DATA) + "/sys/" + machine + ".txt");
    if (!description) throw std::runtime_error("no machine " + machine);
    unpackMachine(description, folder_.path());
  }

  std::string root() const { return folder_.path(); }

  /// Adds lines in the same format.
  void add(const std::string& lines) {
    std::istringstream description(lines);
    unpackMachine(description, folder_.path());
  }

 private:
  TemporaryFolder folder_;
};

}  // namespace vorlix::test
