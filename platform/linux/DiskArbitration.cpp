// SPDX-License-Identifier: Apache-2.0
#include "DiskArbitration.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "../posix/PartitionExtents.h"
#include "BlockDevices.h"

namespace vorlix {
namespace {

std::optional<uint32_t> blockSizeOfImage(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return std::nullopt;
  const uint32_t size = imageBlockSize(descriptor);
  close(descriptor);
  return size;
}

std::optional<uint32_t> blockSizeOfDevice(const std::string& node) {
  struct stat status = {};
  if (stat(node.c_str(), &status) != 0) return std::nullopt;
  return kernelBlockSize(status.st_rdev);
}

class LinuxDisk final : public Disk {
 public:
  explicit LinuxDisk(std::string name) : name_(std::move(name)) {}

  std::optional<Dictionary> copyDescription() override {
    const std::optional<DeviceLocation> location = locateDevice(name_);
    if (!location) return std::nullopt;
    Dictionary description;
    const std::optional<uint32_t> blockSize =
        location->isImage ? blockSizeOfImage(location->whole) : blockSizeOfDevice(location->whole);
    if (blockSize) description.set(kDescriptionMediaBlockSize, int64_t{*blockSize});
    return description;
  }

 private:
  std::string name_;
};

class LinuxSession final : public DiskArbitrationSession {
 public:
  std::shared_ptr<Disk> diskFromBSDName(const std::string& name) override {
    if (!locateDevice(name)) return nullptr;
    return std::make_shared<LinuxDisk>(name);
  }
};

}  // namespace

std::shared_ptr<DiskArbitrationSession> LinuxDiskArbitration::createSession() {
  return std::make_shared<LinuxSession>();
}

}  // namespace vorlix
