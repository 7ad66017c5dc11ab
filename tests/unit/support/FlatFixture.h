// SPDX-License-Identifier: Apache-2.0
//
// A simulated machine, a folder and a private log file for each test of the flat functions.
#pragma once

#include <Vorlix/LogCapture.h>
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include "library/QDSDiskFunctions/OpenDevices.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/FileContent.h"

namespace vorlix::test {

/// A new folder, which is removed with its content.
class TemporaryFolder {
 public:
  TemporaryFolder() : path_(testing::TempDir() + "vorlixXXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary folder: " + path_);
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

class FlatTest : public testing::Test {
 protected:
  FlatTest() : scope_(machine.platform()) {
    machine.setLogFile(logPath());
    machine.duringPauses([](std::chrono::milliseconds) {});
    machine.setDecimalSeparator(".");
  }
  ~FlatTest() override {
    closeKeptOpen();
    number_of_partition_maps = 9;
    verbose_flag = 0;
  }

  std::string logPath() const { return folder / "log"; }

  /// Returns everything logged since the test began or since forgetLog().
  std::string log() const { return contentOf(logPath()); }
  void forgetLog() const { std::filesystem::remove(logPath()); }

  /// Returns this system's own ports with the test's log.
  Platform nativePortsWithLog() const {
    Platform ports = nativePlatform();
    ports.systemPaths = machine.platform().systemPaths;
    return ports;
  }

  /// Writes a file into the test's folder. @return its path.
  std::string makeFile(const std::string& name, const std::vector<uint8_t>& bytes) const {
    std::ofstream file(folder / name, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) throw std::runtime_error("cannot write " + name);
    return folder / name;
  }

  /// Returns the machine's journal without reads, because the stream decides how to split those.
  std::vector<std::string> journalButReads() const {
    std::vector<std::string> lines = machine.journal();
    const auto isRead = [](const std::string& line) { return line.rfind("read ", 0) == 0; };
    lines.erase(std::remove_if(lines.begin(), lines.end(), isRead), lines.end());
    return lines;
  }

  TemporaryFolder folder;
  SimulatedMachine machine;

 private:
  ScopedPlatform scope_;
};

}  // namespace vorlix::test
