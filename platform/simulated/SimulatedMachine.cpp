// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

namespace vorlix {
namespace {

constexpr size_t kPageSize = 4096;

// The bytes of a disk. Only pages that were written exist, so a disk of several terabytes costs nothing.
class SparseBytes {
 public:
  void read(uint64_t offset, uint8_t* to, size_t count) const {
    forEachPage(offset, count, [&](uint64_t page, size_t inPage, size_t done, size_t part) {
      const auto found = pages_.find(page);
      if (found == pages_.end()) {
        std::fill_n(to + done, part, uint8_t{0});
      } else {
        std::copy_n(found->second.begin() + static_cast<std::ptrdiff_t>(inPage), part, to + done);
      }
    });
  }

  void write(uint64_t offset, const uint8_t* from, size_t count) {
    forEachPage(offset, count, [&](uint64_t page, size_t inPage, size_t done, size_t part) {
      std::copy_n(from + done, part, pages_[page].begin() + static_cast<std::ptrdiff_t>(inPage));
    });
  }

 private:
  template <typename Visit>
  static void forEachPage(uint64_t offset, size_t count, Visit visit) {
    for (size_t done = 0; done < count;) {
      const size_t inPage = static_cast<size_t>((offset + done) % kPageSize);
      const size_t part = std::min(kPageSize - inPage, count - done);
      visit((offset + done) / kPageSize, inPage, done, part);
      done += part;
    }
  }

  std::map<uint64_t, std::array<uint8_t, kPageSize>> pages_;
};

struct SimulatedWhole {
  SparseBytes bytes;
  uint64_t size = 0;
  std::optional<uint32_t> blockSize;
  DeviceLock lockedElsewhere = DeviceLock::none;
};

struct Window {
  std::string disk;
  uint64_t offset = 0;
  uint64_t size = 0;
};

struct Fault {
  int error = 0;
  unsigned successesLeft = 0;
};

std::string bareName(const std::string& name) {
  constexpr const char* kPrefix = "/dev/";
  return name.rfind(kPrefix, 0) == 0 ? name.substr(std::strlen(kPrefix)) : name;
}

const char* errorName(int error) {
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
      return std::strerror(error);
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

}  // namespace

struct SimulatedMachine::State {
  std::map<std::string, SimulatedWhole> disks;
  std::map<std::string, Window> devices;
  std::map<std::pair<std::string, Operation>, Fault> faults;
  std::map<std::string, size_t> writeLimits;
  std::vector<std::string> journal;
  size_t openCount = 0;
  bool sessionsRefused = false;

  const Window& device(const std::string& name) const {
    const auto found = devices.find(bareName(name));
    if (found == devices.end()) throw std::invalid_argument("no such simulated device: " + name);
    return found->second;
  }

  // Notes the operation and lets it go through (0) or fail with the reason that was set for it.
  int note(Operation operation, const std::string& name, const std::string& detail, int refusal = 0) {
    const auto found = faults.find({name, operation});
    if (refusal == 0 && found != faults.end()) {
      Fault& fault = found->second;
      if (fault.successesLeft > 0) {
        --fault.successesLeft;
      } else {
        refusal = fault.error;
      }
    }
    std::string line = std::string(operationName(operation)) + " " + name + detail;
    if (refusal != 0) line += std::string(": ") + errorName(refusal);
    journal.push_back(std::move(line));
    errno = refusal;
    return refusal;
  }

  static size_t inside(const Window& window, uint64_t offset, size_t count) {
    if (offset >= window.size) return 0;
    return static_cast<size_t>(std::min<uint64_t>(count, window.size - offset));
  }
};

class SimulatedMachine::SimulatedHandle final : public DeviceHandle {
 public:
  SimulatedHandle(std::shared_ptr<State> state, std::string name, DeviceAccess access)
      : state_(std::move(state)),
        name_(std::move(name)),
        window_(state_->device(name_)),
        writable_(access == DeviceAccess::readWrite) {
    ++state_->openCount;
  }
  ~SimulatedHandle() override {
    if (open_) static_cast<void>(SimulatedHandle::close());
  }

  ssize_t readAt(void* buffer, size_t count, uint64_t offset) override {
    if (state_->note(Operation::read, name_, range(offset, count)) != 0) return -1;
    const size_t done = State::inside(window_, offset, count);
    state_->disks.at(window_.disk).bytes.read(window_.offset + offset, static_cast<uint8_t*>(buffer), done);
    return static_cast<ssize_t>(done);
  }

  ssize_t writeAt(const void* buffer, size_t count, uint64_t offset) override {
    size_t done = State::inside(window_, offset, count);
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

  std::optional<uint64_t> size() override { return window_.size; }

  int close() override {
    if (!std::exchange(open_, false)) {
      errno = EBADF;
      return -1;
    }
    --state_->openCount;
    return state_->note(Operation::close, name_, "") == 0 ? 0 : -1;
  }

 private:
  std::shared_ptr<State> state_;
  std::string name_;
  Window window_;
  bool writable_;
  bool open_ = true;
};

class SimulatedMachine::SimulatedDeviceFile final : public DeviceFile {
 public:
  explicit SimulatedDeviceFile(std::shared_ptr<State> state) : state_(std::move(state)) {}

  std::unique_ptr<DeviceHandle> open(const std::string& path, DeviceAccess access, DeviceLock lock) override {
    const std::string name = bareName(path);
    std::string detail = access == DeviceAccess::readOnly ? " read" : " write";
    if (lock == DeviceLock::exclusive) detail += " exclusive";
    if (lock == DeviceLock::shared) detail += " shared";
    if (state_->note(Operation::open, name, detail, refusalOf(name, lock)) != 0) return nullptr;
    return std::make_unique<SimulatedHandle>(state_, name, access);
  }

 private:
  int refusalOf(const std::string& name, DeviceLock lock) const {
    const auto device = state_->devices.find(name);
    if (device == state_->devices.end()) return ENOENT;
    const DeviceLock elsewhere = state_->disks.at(device->second.disk).lockedElsewhere;
    if (lock == DeviceLock::none || elsewhere == DeviceLock::none) return 0;
    return lock == DeviceLock::shared && elsewhere == DeviceLock::shared ? 0 : EWOULDBLOCK;
  }

  std::shared_ptr<State> state_;
};

class SimulatedMachine::SimulatedDisk final : public Disk {
 public:
  SimulatedDisk(std::shared_ptr<State> state, std::string name) : state_(std::move(state)), name_(std::move(name)) {}

  std::optional<Dictionary> copyDescription() override {
    state_->journal.push_back("describe " + name_);
    const auto& whole = state_->disks.at(state_->device(name_).disk);
    Dictionary description;
    if (whole.blockSize) description.set(kDescriptionMediaBlockSize, int64_t{*whole.blockSize});
    return description;
  }

 private:
  std::shared_ptr<State> state_;
  std::string name_;
};

class SimulatedMachine::SimulatedSession final : public DiskArbitrationSession {
 public:
  explicit SimulatedSession(std::shared_ptr<State> state) : state_(std::move(state)) {}

  std::shared_ptr<Disk> diskFromBSDName(const std::string& name) override {
    if (state_->devices.count(bareName(name)) == 0) return nullptr;
    return std::make_shared<SimulatedDisk>(state_, bareName(name));
  }

 private:
  std::shared_ptr<State> state_;
};

class SimulatedMachine::SimulatedArbitration final : public DiskArbitration {
 public:
  explicit SimulatedArbitration(std::shared_ptr<State> state) : state_(std::move(state)) {}

  std::shared_ptr<DiskArbitrationSession> createSession() override {
    if (state_->sessionsRefused) return nullptr;
    return std::make_shared<SimulatedSession>(state_);
  }

 private:
  std::shared_ptr<State> state_;
};

SimulatedMachine::SimulatedMachine() : state_(std::make_shared<State>()) {}
SimulatedMachine::~SimulatedMachine() = default;

Platform SimulatedMachine::platform() const {
  return {std::make_shared<SimulatedDeviceFile>(state_), std::make_shared<SimulatedArbitration>(state_)};
}

void SimulatedMachine::addDisk(const std::string& name, uint64_t size, uint32_t blockSize) {
  SimulatedWhole& whole = state_->disks[name];
  whole.size = size;
  whole.blockSize = blockSize;
  state_->devices[name] = {name, 0, size};
}

void SimulatedMachine::addSlice(const std::string& disk, uint32_t number, uint64_t first, uint64_t count) {
  const uint64_t blockSize = state_->disks.at(disk).blockSize.value();
  state_->devices[disk + "s" + std::to_string(number)] = {disk, first * blockSize, count * blockSize};
}

void SimulatedMachine::hideBlockSize(const std::string& disk) {
  state_->disks.at(disk).blockSize.reset();
}

void SimulatedMachine::refuseSessions() {
  state_->sessionsRefused = true;
}

std::vector<uint8_t> SimulatedMachine::bytes(const std::string& device, uint64_t offset, size_t count) const {
  const Window& window = state_->device(device);
  std::vector<uint8_t> result(State::inside(window, offset, count));
  state_->disks.at(window.disk).bytes.read(window.offset + offset, result.data(), result.size());
  return result;
}

void SimulatedMachine::setBytes(const std::string& device, uint64_t offset, const std::vector<uint8_t>& bytes) {
  const Window& window = state_->device(device);
  if (State::inside(window, offset, bytes.size()) != bytes.size()) throw std::out_of_range("past the end: " + device);
  state_->disks.at(window.disk).bytes.write(window.offset + offset, bytes.data(), bytes.size());
}

void SimulatedMachine::fail(const std::string& device, Operation operation, int error, unsigned successes) {
  state_->faults[{bareName(device), operation}] = {error, successes};
}

void SimulatedMachine::shortenWrites(const std::string& device, size_t count) {
  state_->writeLimits[bareName(device)] = count;
}

void SimulatedMachine::lockElsewhere(const std::string& disk, DeviceLock lock) {
  state_->disks.at(bareName(disk)).lockedElsewhere = lock;
}

std::vector<std::string> SimulatedMachine::journal() const {
  return state_->journal;
}

std::vector<std::string> SimulatedMachine::writes() const {
  std::vector<std::string> result;
  std::copy_if(state_->journal.begin(), state_->journal.end(), std::back_inserter(result),
               [](const std::string& line) { return line.rfind("write ", 0) == 0 || line.rfind("sync ", 0) == 0; });
  return result;
}

void SimulatedMachine::clearJournal() {
  state_->journal.clear();
}

size_t SimulatedMachine::openCount() const {
  return state_->openCount;
}

}  // namespace vorlix
