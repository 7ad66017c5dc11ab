// SPDX-License-Identifier: Apache-2.0
//
// The file, the device or the pipe that a source is read from.
#pragma once

#include <Vorlix/platform/Descriptor.h>
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/Unpacking.h>

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vorlix {

class SourceFile final : public PackedBytes {
 public:
  /// Opens a path or standard input, and reads its first bytes. @return null with a `reason`.
  static std::shared_ptr<SourceFile> open(const std::string& path, std::string& reason);
  /// Likewise of what is open. @return null with a `reason`.
  static std::shared_ptr<SourceFile> over(std::unique_ptr<DeviceHandle> handle, std::string& reason);
  ~SourceFile() override;

  ssize_t read(void* buffer, size_t count) override;
  std::optional<uint64_t> size() const override;
  bool seek(uint64_t offset) override;

  /// The first 64 KiB, fewer where the file ends. They are read again by read().
  std::span<const uint8_t> start() const { return start_; }

  /// Where the next read() begins.
  uint64_t position() const { return position_; }

  std::optional<DataRun> dataFrom(uint64_t offset) const;
  std::optional<DeviceIdentity> identity() const;

 private:
  SourceFile() = default;

  bool readStart();
  ssize_t readNext(void* buffer, size_t count);

  std::unique_ptr<DeviceHandle> handle_;  // null for pipes
  int pipe_ = -1;
  Descriptor owned_;  // a pipe that was opened here; standard input is the caller's
  std::vector<uint8_t> start_;
  uint64_t position_ = 0;
};

}  // namespace vorlix
