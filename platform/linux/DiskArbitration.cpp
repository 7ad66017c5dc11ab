// SPDX-License-Identifier: Apache-2.0
#include "DiskArbitration.h"

#include <fcntl.h>

#include <cerrno>
#include <deque>
#include <utility>

#include "DeviceFacts.h"
#include "DeviceNames.h"
#include "DiskDescription.h"
#include "ImageFiles.h"
#include "MountedDevices.h"
#include "Mounting.h"
#include "OpenedDevice.h"
#include "RunLoop.h"

namespace vorlix {
namespace {

/// The requests of a session. Each is carried out on the run loop that the session is scheduled on. Requests that are
/// left when the session ends are carried out then, later ones at once; both without their completions.
class Requests final : public RunLoopSource {
 public:
  using Work = std::function<Refusal()>;

  void add(Work work, DiskCompletion completion) {
    if (ended_) {
      static_cast<void>(work());
      return;
    }
    waiting_.push_back({std::move(work), std::move(completion)});
  }

  void end() {
    ended_ = true;
    while (!waiting_.empty()) static_cast<void>(takeFirst().work());
  }

  bool isPending() const override { return !waiting_.empty(); }

  void handle() override {
    const Request request = takeFirst();
    const Refusal refusal = request.work();
    if (request.completion) request.completion(refusal);
  }

 private:
  struct Request {
    Work work;
    DiskCompletion completion;
  };

  Request takeFirst() {
    Request request = std::move(waiting_.front());
    waiting_.pop_front();
    return request;
  }

  std::deque<Request> waiting_;
  bool ended_ = false;
};

class LinuxDisk final : public Disk {
 public:
  /// `name` must find the device from any working folder; `location` is the result of finding it.
  LinuxDisk(std::string name, DeviceLocation location, std::shared_ptr<Requests> requests)
      : name_(std::move(name)), location_(std::move(location)), requests_(std::move(requests)) {}

  static std::shared_ptr<LinuxDisk> named(const std::string& name, const std::shared_ptr<Requests>& requests);

  std::optional<std::string> bsdName() override { return location_.isImage ? name_ : bsdNameOf(location_); }

  std::optional<Dictionary> copyDescription() override {
    const std::optional<DeviceLocation> location = locateDevice(name_);
    if (!location) return std::nullopt;
    return describeDisk(*location);
  }

  std::optional<int64_t> blockSize() override {
    const std::optional<DeviceLocation> location = locateDevice(name_);
    const auto size = location ? mediumBlockSize(*location) : std::nullopt;
    return size ? std::optional<int64_t>(*size) : std::nullopt;
  }

  std::optional<URL> volumePath() override {
    const std::optional<DeviceLocation> location = locateDevice(name_);
    return location ? volumePathOf(*location) : std::nullopt;
  }

  std::optional<bool> isInternal() override {
    const std::optional<DeviceLocation> location = locateDevice(name_);
    return location ? isInternalDevice(*location) : std::nullopt;
  }

  std::optional<Dictionary> copyVolumeDescription() override {
    const std::optional<DeviceLocation> location = locateDevice(name_);
    if (!location) return std::nullopt;
    return describeVolumeOf(*location);
  }

  std::shared_ptr<Disk> wholeDisk() override { return named(location_.whole, requests_); }

  void mount(const std::vector<std::string>& arguments, DiskCompletion completion) override {
    requests_->add([name = name_, arguments] { return mountVolume(name, arguments); }, std::move(completion));
  }

  void unmount(DiskCompletion completion) override {
    requests_->add([name = name_] { return unmountVolume(name); }, std::move(completion));
  }

  std::optional<std::string> volumeType() override {
    const std::optional<DeviceLocation> location = locateDevice(name_);
    return location ? volumeTypeOf(*location) : std::nullopt;
  }

  std::optional<UUID> volumeUUID() override {
    const std::optional<DeviceLocation> location = locateDevice(name_);
    return location ? volumeUUIDOf(*location) : std::nullopt;
  }

 private:
  std::string name_;
  DeviceLocation location_;
  std::shared_ptr<Requests> requests_;
};

// A slice without its own node exists if the partition table has it. If the table cannot be read for lack of
// permission, the slice is assumed to exist, and only what needs its bytes fails.
bool isThere(const DeviceLocation& location) {
  return location.hasOwnNode() || openLocation(location, O_RDONLY) || errno == EACCES || errno == EPERM;
}

std::shared_ptr<LinuxDisk> LinuxDisk::named(const std::string& name, const std::shared_ptr<Requests>& requests) {
  const std::optional<DeviceLocation> location = locateDevice(name);
  if (!location || !isThere(*location)) return nullptr;
  // The name of an image is its absolute path, whatever name was given.
  if (!location->isImage) return std::make_shared<LinuxDisk>(name, *location, requests);
  DeviceLocation image = *location;
  image.whole = image.node = location->imageName;
  std::string bsdName = *bsdNameOf(image);
  return std::make_shared<LinuxDisk>(std::move(bsdName), std::move(image), requests);
}

class LinuxSession final : public DiskArbitrationSession {
 public:
  ~LinuxSession() override {
    for (const Place& place : places_) {
      if (const auto loop = place.loop.lock()) loop->remove(place.mode, requests_);
    }
    requests_->end();
  }

  std::shared_ptr<Disk> diskFromBSDName(const std::string& name) override { return LinuxDisk::named(name, requests_); }

  std::shared_ptr<Disk> diskFromVolumePath(const URL& path) override {
    const std::optional<std::string> device = deviceMountedAt(path.path());
    return device ? LinuxDisk::named(*device, requests_) : nullptr;
  }

  void schedule(RunLoop& loop, const std::string& mode) override {
    auto& own = static_cast<LinuxRunLoop&>(loop);
    own.add(mode, requests_);
    places_.push_back({own.weak_from_this(), mode});
  }

  void unschedule(RunLoop& loop, const std::string& mode) override {
    auto& own = static_cast<LinuxRunLoop&>(loop);
    own.remove(mode, requests_);
    std::erase_if(places_, [&](const Place& place) { return place.mode == mode && place.loop.lock().get() == &own; });
  }

 private:
  struct Place {
    std::weak_ptr<LinuxRunLoop> loop;
    std::string mode;
  };

  std::shared_ptr<Requests> requests_ = std::make_shared<Requests>();
  std::vector<Place> places_;
};

}  // namespace

std::shared_ptr<DiskArbitrationSession> LinuxDiskArbitration::createSession() {
  return std::make_shared<LinuxSession>();
}

}  // namespace vorlix
