// SPDX-License-Identifier: Apache-2.0
//
// Control of the process's standard streams.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>

namespace vorlix::test {

/// Captures the process's standard output or standard error, whether written through stdio or directly, until text() is
/// called.
class OutputCapture {
 public:
  explicit OutputCapture(int descriptor) : descriptor_(descriptor), file_(std::tmpfile()) {
    std::fflush(nullptr);
    saved_ = dup(descriptor_);
    if (file_ == nullptr || saved_ < 0 || dup2(fileno(file_), descriptor_) < 0) {
      throw std::runtime_error("cannot capture an output");
    }
  }
  ~OutputCapture() {
    restore();
    std::fclose(file_);
  }
  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;

  /// Ends the capture. @return everything written.
  std::string text() {
    restore();
    std::string result;
    char buffer[4096];
    std::rewind(file_);
    for (size_t count; (count = std::fread(buffer, 1, sizeof buffer, file_)) > 0;) result.append(buffer, count);
    return result;
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    std::fflush(nullptr);
    dup2(saved_, descriptor_);
    close(std::exchange(saved_, -1));
  }

  int descriptor_;
  int saved_ = -1;
  FILE* file_;
};

/// Replaces the process's standard input by a file. Afterwards, standard input is /dev/null and stdio's buffer is
/// empty.
class StandardInput {
 public:
  explicit StandardInput(const std::string& path) { reopen(path.c_str()); }
  ~StandardInput() { static_cast<void>(std::freopen("/dev/null", "r", stdin) != nullptr); }
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;

 private:
  static void reopen(const char* path) {
    if (std::freopen(path, "r", stdin) == nullptr) throw std::runtime_error("cannot redirect standard input");
  }
};

}  // namespace vorlix::test
