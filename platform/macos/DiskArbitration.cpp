// SPDX-License-Identifier: Apache-2.0
#include "DiskArbitration.h"

#include <DiskArbitration/DiskArbitration.h>
#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "../posix/PartitionExtents.h"
#include "CFOwned.h"
#include "DeviceNames.h"

namespace vorlix {
namespace {

std::optional<int64_t> integerOf(CFDictionaryRef dictionary, CFStringRef key) {
  const void* const value = CFDictionaryGetValue(dictionary, key);
  if (value == nullptr || CFGetTypeID(value) != CFNumberGetTypeID()) return std::nullopt;
  int64_t number = 0;
  if (!CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberSInt64Type, &number)) return std::nullopt;
  return number;
}

class ArbitratedDisk final : public Disk {
 public:
  explicit ArbitratedDisk(CFOwned<DADiskRef> disk) : disk_(std::move(disk)) {}

  std::optional<Dictionary> copyDescription() override {
    const CFOwned<CFDictionaryRef> native(DADiskCopyDescription(disk_.get()));
    if (!native) return std::nullopt;
    Dictionary description;
    if (const auto blockSize = integerOf(native.get(), kDADiskDescriptionMediaBlockSizeKey)) {
      description.set(kDescriptionMediaBlockSize, *blockSize);
    }
    return description;
  }

 private:
  CFOwned<DADiskRef> disk_;
};

class ImageDisk final : public Disk {
 public:
  explicit ImageDisk(std::string path) : path_(std::move(path)) {}

  std::optional<Dictionary> copyDescription() override {
    const std::optional<DeviceLocation> location = locateDevice(path_);
    if (!location || !location->isImage) return std::nullopt;
    Dictionary description;
    const int descriptor = open(location->path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) return description;  // known to be there, but not to be read
    description.set(kDescriptionMediaBlockSize, int64_t{imageBlockSize(descriptor)});
    close(descriptor);
    return description;
  }

 private:
  std::string path_;
};

class MacSession final : public DiskArbitrationSession {
 public:
  explicit MacSession(CFOwned<DASessionRef> session) : session_(std::move(session)) {}

  std::shared_ptr<Disk> diskFromBSDName(const std::string& name) override {
    const std::optional<DeviceLocation> location = locateDevice(name);
    if (location && location->isImage) return std::make_shared<ImageDisk>(name);
    const std::optional<std::string> bare = arbitrationName(name);
    if (!bare) return nullptr;
    CFOwned<DADiskRef> disk(DADiskCreateFromBSDName(kCFAllocatorDefault, session_.get(), bare->c_str()));
    if (!disk) return nullptr;
    // The framework makes an object of any name; only a description tells that there is such a disk.
    const CFOwned<CFDictionaryRef> description(DADiskCopyDescription(disk.get()));
    if (!description) return nullptr;
    return std::make_shared<ArbitratedDisk>(std::move(disk));
  }

 private:
  CFOwned<DASessionRef> session_;
};

}  // namespace

std::shared_ptr<DiskArbitrationSession> MacDiskArbitration::createSession() {
  CFOwned<DASessionRef> session(DASessionCreate(kCFAllocatorDefault));
  if (!session) return nullptr;
  return std::make_shared<MacSession>(std::move(session));
}

}  // namespace vorlix
