// SPDX-License-Identifier: Apache-2.0
//
// The devices of the machine as arrays of bytes, with faults.
#include <Vorlix/platform/SystemError.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string_view>

#include "SimulatedState.h"

namespace vorlix {
namespace {

std::string errorName(int error) {
  switch (error) {
    case ENOENT:
      return "ENOENT";
    case EWOULDBLOCK:
      return "EWOULDBLOCK";
    case EACCES:
      return "EACCES";
    case EBADF:
      return "EBADF";
    case EIO:
      return "EIO";
    case ENOSPC:
      return "ENOSPC";
    default:
      return SystemError{error}.reason();
  }
}

const char* operationName(Operation operation) {
  switch (operation) {
    case Operation::open:
      return "open";
    case Operation::read:
      return "read";
    case Operation::write:
      return "write";
    case Operation::sync:
      return "sync";
    case Operation::close:
      return "close";
  }
  return "";
}

std::string range(uint64_t offset, size_t count) {
  return " " + std::to_string(offset) + "+" + std::to_string(count);
}

class SimulatedHandle final : public DeviceHandle {
 public:
  SimulatedHandle(std::shared_ptr<SimulatedState> state, std::string name, DeviceAccess access,
                  std::shared_ptr<const DeviceLock> lock)
      : state_(std::move(state)),
        name_(std::move(name)),
        window_(state_->device(name_)),
        writable_(access == DeviceAccess::readWrite),
        lock_(std::move(lock)) {
    ++state_->openCount;
  }
  ~SimulatedHandle() override {
    if (open_) static_cast<void>(SimulatedHandle::close());
  }
  SimulatedHandle(const SimulatedHandle&) = delete;
  SimulatedHandle& operator=(const SimulatedHandle&) = delete;

  ssize_t readAt(void* buffer, size_t count, uint64_t offset) override {
    if (state_->note(Operation::read, name_, range(offset, count)) != 0) return -1;
    const size_t done = window_.inside(offset, count);
    state_->disks.at(window_.disk).bytes.read(window_.offset + offset, static_cast<uint8_t*>(buffer), done);
    return static_cast<ssize_t>(done);
  }

  ssize_t writeAt(const void* buffer, size_t count, uint64_t offset) override {
    size_t done = window_.inside(offset, count);
    if (const auto limit = state_->writeLimits.find(name_); limit != state_->writeLimits.end()) {
      done = std::min(done, limit->second);
    }
    int refusal = done == 0 && count != 0 ? ENOSPC : 0;
    if (!writable_) refusal = EBADF;
    if (state_->note(Operation::write, name_, range(offset, count), refusal) != 0) return -1;
    state_->disks.at(window_.disk).bytes.write(window_.offset + offset, static_cast<const uint8_t*>(buffer), done);
    return static_cast<ssize_t>(done);
  }

  int sync() override { return state_->note(Operation::sync, name_, "") == 0 ? 0 : -1; }

  std::optional<DeviceIdentity> identity() override { return DeviceIdentity{window_.disk, window_.offset}; }

  std::optional<uint64_t> size() override { return window_.size; }

  int close() override {
    if (!std::exchange(open_, false)) {
      errno = EBADF;
      return -1;
    }
    --state_->openCount;
    lock_.reset();
    return state_->note(Operation::close, name_, "") == 0 ? 0 : -1;
  }

 private:
  std::shared_ptr<SimulatedState> state_;
  std::string name_;
  SimulatedWindow window_;
  bool writable_;
  std::shared_ptr<const DeviceLock> lock_;
  bool open_ = true;
};

class SimulatedDeviceFile final : public DeviceFile {
 public:
  explicit SimulatedDeviceFile(std::shared_ptr<SimulatedState> state) : state_(std::move(state)) {}

  std::unique_ptr<DeviceHandle> open(const std::string& path, DeviceAccess access, DeviceLock lock) override {
    const std::string name = bareDeviceName(path);
    std::string detail = access == DeviceAccess::readOnly ? " read" : " write";
    if (lock == DeviceLock::exclusive) detail += " exclusive";
    if (lock == DeviceLock::shared) detail += " shared";
    if (state_->note(Operation::open, name, detail, refusalOf(name, lock)) != 0) return nullptr;
    return std::make_unique<SimulatedHandle>(state_, name, access, takeLock(name, lock));
  }

 private:
  int refusalOf(const std::string& name, DeviceLock lock) const {
    const auto device = state_->devices.find(name);
    if (device == state_->devices.end()) return ENOENT;
    if (lock == DeviceLock::none) return 0;
    const SimulatedWhole& disk = state_->disks.at(device->second.disk);
    const auto own = disk.ownLock.lock();
    if (own && *own == DeviceLock::shared && lock == DeviceLock::exclusive) return EWOULDBLOCK;
    if (disk.lockedElsewhere == DeviceLock::none) return 0;
    return lock == DeviceLock::shared && disk.lockedElsewhere == DeviceLock::shared ? 0 : EWOULDBLOCK;
  }

  std::shared_ptr<const DeviceLock> takeLock(const std::string& name, DeviceLock lock) const {
    if (lock == DeviceLock::none) return nullptr;
    SimulatedWhole& disk = state_->disks.at(state_->device(name).disk);
    if (auto own = disk.ownLock.lock()) return own;
    auto taken = std::make_shared<const DeviceLock>(lock);
    disk.ownLock = taken;
    return taken;
  }

  std::shared_ptr<SimulatedState> state_;
};

}  // namespace

size_t SimulatedWindow::inside(uint64_t from, size_t count) const {
  if (from >= size) return 0;
  return static_cast<size_t>(std::min<uint64_t>(count, size - from));
}

std::string bareDeviceName(const std::string& name) {
  constexpr std::string_view kPrefix = "/dev/";
  std::string_view bare = name;
  while (bare.starts_with(kPrefix)) bare.remove_prefix(kPrefix.size());
  return std::string(bare);
}

const SimulatedWindow& SimulatedState::device(const std::string& name) const {
  const auto found = devices.find(bareDeviceName(name));
  if (found == devices.end()) throw std::invalid_argument("no such simulated device: " + name);
  return found->second;
}

int SimulatedState::note(Operation operation, const std::string& name, const std::string& detail, int refusal) {
  const auto found = faults.find({name, operation});
  if (refusal == 0 && found != faults.end()) {
    DeviceFault& fault = found->second;
    if (fault.successesLeft > 0) {
      --fault.successesLeft;
    } else {
      refusal = fault.error;
    }
  }
  std::string line = std::string(operationName(operation)) + " " + name + detail;
  if (refusal != 0) line += ": " + errorName(refusal);
  journal.push_back(std::move(line));
  errno = refusal;
  return refusal;
}

std::shared_ptr<DeviceFile> makeSimulatedDeviceFile(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedDeviceFile>(std::move(state));
}

}  // namespace vorlix
