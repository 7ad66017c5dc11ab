// SPDX-License-Identifier: Apache-2.0
//
// The machines on which the contracts of the device ports are tested. Each has one disk of the same layout:
//
//     blocks       2048, of 512 or 4096 bytes
//     slice 1      blocks 40 to 103
//     slice 3      blocks 200 to 263 (there is no slice 2, nor any above 3)
//     bytes        patternAt() in the blocks 36 to 299
#pragma once

#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/simulated/SimulatedMachine.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace vorlix::contract {

using Buffer = std::vector<uint8_t>;

constexpr uint64_t kDiskBlocks = 2048;
constexpr uint64_t kPatternFirst = 36;
constexpr uint64_t kPatternBlocks = 264;
constexpr uint64_t kSliceBlocks = 64;

inline uint64_t sliceFirst(uint32_t number) {
  return number == 1 ? 40 : 200;
}

/// Returns the byte at an offset of the disk within the pattern.
inline uint8_t patternAt(uint64_t offset) {
  return static_cast<uint8_t>(offset * 7 + offset / 256 * 13 + 1);
}

inline Buffer pattern(uint64_t offset, size_t count) {
  Buffer bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = patternAt(offset + i);
  return bytes;
}

// --------------------------------------------------------------------------------------------- a GPT, byte by byte

inline void put(Buffer& bytes, size_t offset, size_t width, uint64_t value) {
  for (size_t i = 0; i < width; ++i) bytes.at(offset + i) = static_cast<uint8_t>(value >> (8 * i));
}

inline uint32_t crc32(const uint8_t* bytes, size_t count) {
  uint32_t sum = 0xFFFFFFFF;
  for (size_t i = 0; i < count; ++i) {
    sum ^= bytes[i];
    for (int bit = 0; bit < 8; ++bit) sum = (sum >> 1) ^ ((sum & 1) != 0 ? 0xEDB88320U : 0U);
  }
  return ~sum;
}

struct GPTSlice {
  uint32_t number;
  uint64_t first;
  uint64_t last;
};

constexpr size_t kTableEntries = 128;

/// Returns the blocks from 0 to the end of the entries: a protective MBR, a GPT header and 128 entries from block 2 on.
inline Buffer gptOf(uint32_t blockSize, uint64_t blocks, const std::vector<GPTSlice>& slices) {
  Buffer bytes(2 * blockSize + kTableEntries * 128);
  put(bytes, 446, 8, 0xFFFFFFEE00020000);  // 00 00 02 00, EE, FF FF FF
  put(bytes, 454, 4, 1);
  put(bytes, 458, 4, blocks - 1);
  put(bytes, 510, 2, 0xAA55);

  const size_t entries = 2 * size_t{blockSize};
  // Basic data, EBD0A0A2-B9E5-4433-87C0-68B6B72699C7
  constexpr std::array<uint8_t, 16> kType = {0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44,
                                             0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7};
  for (const GPTSlice& slice : slices) {
    const size_t at = entries + (slice.number - 1) * 128;
    std::copy(kType.begin(), kType.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
    put(bytes, at + 16, 8, 0x1122334455660000 + slice.number);
    put(bytes, at + 24, 8, 1);
    put(bytes, at + 32, 8, slice.first);
    put(bytes, at + 40, 8, slice.last);
  }

  const size_t header = blockSize;
  std::memcpy(bytes.data() + header, "EFI PART", 8);
  put(bytes, header + 8, 4, 0x00010000);
  put(bytes, header + 12, 4, 92);
  put(bytes, header + 24, 8, 1);
  put(bytes, header + 32, 8, blocks - 1);
  put(bytes, header + 40, 8, 34);
  put(bytes, header + 48, 8, blocks - 34);
  put(bytes, header + 56, 8, 0x0123456789ABCDEF);
  put(bytes, header + 64, 8, 2);
  put(bytes, header + 72, 8, 2);
  put(bytes, header + 80, 4, kTableEntries);
  put(bytes, header + 84, 4, 128);
  put(bytes, header + 88, 4, crc32(bytes.data() + entries, kTableEntries * 128));
  put(bytes, header + 16, 4, crc32(bytes.data() + header, 92));
  return bytes;
}

inline std::vector<GPTSlice> usualSlices() {
  return {{1, sliceFirst(1), sliceFirst(1) + kSliceBlocks - 1}, {3, sliceFirst(3), sliceFirst(3) + kSliceBlocks - 1}};
}

// ------------------------------------------------------------------------------------------------ files and helpers

/// A private folder, which is removed with the object.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "vorlix-contract-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
    path_ = name;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::filesystem::path path() const { return path_; }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

/// Creates a sparse file of `size` bytes that begins with `bytes`.
inline void writeImage(const std::string& path, const Buffer& bytes, uint64_t size) {
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  file.close();
  std::filesystem::resize_file(path, size);
  if (!file) throw std::runtime_error("cannot write " + path);
}

/// Creates the image of the usual disk.
inline void writeUsualImage(const std::string& path, uint32_t blockSize) {
  Buffer bytes = gptOf(blockSize, kDiskBlocks, usualSlices());
  bytes.resize((kPatternFirst + kPatternBlocks) * blockSize);
  const Buffer filling = pattern(kPatternFirst * blockSize, kPatternBlocks * blockSize);
  std::copy(filling.begin(), filling.end(), bytes.begin() + static_cast<std::ptrdiff_t>(kPatternFirst * blockSize));
  writeImage(path, bytes, kDiskBlocks * blockSize);
}

inline Buffer readFile(const std::string& path, uint64_t offset, size_t count) {
  std::ifstream file(path, std::ios::binary);
  Buffer bytes(count);
  file.seekg(static_cast<std::streamoff>(offset));
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(count));
  bytes.resize(static_cast<size_t>(file.gcount()));
  return bytes;
}

/// Returns the open descriptors of this process.
inline std::set<int> openDescriptors() {
  std::vector<int> seen;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/fd")) {
    seen.push_back(std::stoi(entry.path().filename().string()));
  }
  std::set<int> open;
  for (const int descriptor : seen) {  // the descriptor of the listing itself is closed by now
    if (fcntl(descriptor, F_GETFD) >= 0) open.insert(descriptor);
  }
  return open;
}

/// Runs a shell command. @return its standard output without the last line feed. `ok` becomes whether it succeeded.
inline std::string runCommand(const std::string& command, bool& ok) {
  std::string output;
  FILE* const pipe = popen(("PATH=$PATH:/usr/sbin:/sbin; " + command).c_str(), "r");
  if (pipe == nullptr) {
    ok = false;
    return output;
  }
  std::array<char, 256> part;
  while (std::fgets(part.data(), static_cast<int>(part.size()), pipe) != nullptr) output += part.data();
  ok = pclose(pipe) == 0;
  if (!output.empty() && output.back() == '\n') output.pop_back();
  return output;
}

/// A lock that another process holds for the life of the object.
class OtherProcessLock {
 public:
  OtherProcessLock(const std::string& path, DeviceLock lock) {
    std::array<int, 2> ready;
    std::array<int, 2> end;
    if (pipe(ready.data()) != 0 || pipe(end.data()) != 0) throw std::runtime_error("no pipe");
    child_ = fork();
    if (child_ < 0) throw std::runtime_error("no child process");
    if (child_ == 0) {
      close(end[1]);
      char byte = tryLock(path, lock) >= 0 ? 'y' : 'n';
      if (write(ready[1], &byte, 1) != 1) _exit(1);
      static_cast<void>(!read(end[0], &byte, 1));  // ends when the parent closes its side
      _exit(0);
    }
    close(ready[1]);
    close(end[0]);
    end_ = end[1];
    char answer = 'n';
    if (read(ready[0], &answer, 1) != 1) answer = 'n';
    close(ready[0]);
    held_ = answer == 'y';
  }
  ~OtherProcessLock() {
    close(end_);
    waitpid(child_, nullptr, 0);
  }
  OtherProcessLock(const OtherProcessLock&) = delete;
  OtherProcessLock& operator=(const OtherProcessLock&) = delete;

  bool held() const { return held_; }

  /// Returns whether another process could get the lock now.
  static bool couldBeHeld(const std::string& path, DeviceLock lock) { return OtherProcessLock(path, lock).held(); }

 private:
  static int tryLock(const std::string& path, DeviceLock lock) {
    const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (descriptor < 0) return -1;
    return flock(descriptor, (lock == DeviceLock::exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0 ? descriptor : -1;
  }

  pid_t child_ = -1;
  int end_ = -1;
  bool held_ = false;
};

// ------------------------------------------------------------------------------------------------------- the worlds

/// A machine with the usual disk.
class DeviceWorld {
 public:
  explicit DeviceWorld(uint32_t blockSize) : blockSize_(blockSize) {}
  virtual ~DeviceWorld() = default;
  DeviceWorld(const DeviceWorld&) = delete;
  DeviceWorld& operator=(const DeviceWorld&) = delete;

  uint32_t blockSize() const { return blockSize_; }
  uint64_t diskSize() const { return kDiskBlocks * blockSize_; }

  virtual Platform ports() const = 0;
  /// Returns the name of the whole disk for the ports.
  virtual std::string disk() const = 0;
  std::string slice(uint32_t number) const { return disk() + "s" + std::to_string(number); }
  /// Returns bytes of the disk, read without the ports.
  virtual Buffer bytes(uint64_t offset, size_t count) const = 0;
  Buffer allBytes() const { return bytes(0, static_cast<size_t>(diskSize())); }
  /// Returns the number of open devices or descriptors.
  virtual size_t openCount() const = 0;
  virtual void lockElsewhere(DeviceLock lock) = 0;
  virtual void unlockElsewhere() = 0;
  /// Returns whether a lock is the access to the opened node that the system grants, instead of an advisory lock on the
  /// whole disk. In that case an exclusive lock keeps everybody else out.
  virtual bool locksAreAccess() const { return false; }
  /// A process that has a whole disk open for writing with an exclusive lock can open the disk's slices, too.
  virtual bool slicesStayBesideWriter() const { return true; }

 private:
  uint32_t blockSize_;
};

class SimulatedWorld final : public DeviceWorld {
 public:
  explicit SimulatedWorld(uint32_t blockSize) : DeviceWorld(blockSize) {
    machine_.addDisk("disk0", diskSize(), blockSize);
    machine_.addSlice("disk0", 1, sliceFirst(1), kSliceBlocks);
    machine_.addSlice("disk0", 3, sliceFirst(3), kSliceBlocks);
    machine_.setBytes("disk0", kPatternFirst * blockSize,
                      pattern(kPatternFirst * blockSize, kPatternBlocks * blockSize));
  }

  Platform ports() const override { return machine_.platform(); }
  std::string disk() const override { return "/dev/disk0"; }
  Buffer bytes(uint64_t offset, size_t count) const override { return machine_.bytes("disk0", offset, count); }
  size_t openCount() const override { return machine_.openCount(); }
  void lockElsewhere(DeviceLock lock) override { machine_.lockElsewhere("disk0", lock); }
  void unlockElsewhere() override { machine_.lockElsewhere("disk0", DeviceLock::none); }

 private:
  SimulatedMachine machine_;
};

/// A disk-image file. No privilege is needed.
class ImageWorld : public DeviceWorld {
 public:
  explicit ImageWorld(uint32_t blockSize) : DeviceWorld(blockSize) { writeUsualImage(image(), blockSize); }

  Platform ports() const override { return nativePlatform(); }
  std::string disk() const override { return image(); }
  Buffer bytes(uint64_t offset, size_t count) const override { return readFile(disk(), offset, count); }
  size_t openCount() const override { return openDescriptors().size(); }
  void lockElsewhere(DeviceLock lock) override {
    other_ = std::make_unique<OtherProcessLock>(disk(), lock);
    if (!other_->held()) throw std::runtime_error("the other process did not get its lock");
  }
  void unlockElsewhere() override { other_.reset(); }

 protected:
  std::string image() const { return folder_ / "a disk image with more than thirty characters.img"; }

 private:
  TemporaryFolder folder_;
  std::unique_ptr<OtherProcessLock> other_;
};

/// A loop device over such a file. It is marked for detaching as soon as it is attached, and disappears with the last
/// descriptor, so a test that crashes leaves no device behind.
class LoopWorld final : public ImageWorld {
 public:
  /// With `kernelSlices`, the kernel learns of the slices, so they get their own nodes.
  LoopWorld(uint32_t blockSize, bool kernelSlices) : ImageWorld(blockSize) {
    bool ok = false;
    const std::string options = "--partscan --sector-size " + std::to_string(blockSize);
    device_ = runCommand("losetup --show --find " + options + " '" + image() + "'", ok);
    if (!ok || device_.empty()) throw std::runtime_error("losetup cannot attach a loop device");
    keeper_ = open(device_.c_str(), O_RDONLY | O_CLOEXEC);
    runCommand("partx --delete " + device_ + " 2>/dev/null", ok);  // some kernels scan for slices themselves
    if (kernelSlices) runCommand("partx --add " + device_ + " 2>&1", slicesAdded_);
    runCommand("losetup --detach " + device_, ok);
  }
  ~LoopWorld() override {
    bool ok = false;
    runCommand("partx --delete " + device_ + " 2>/dev/null", ok);
    close(keeper_);
  }

  /// Returns why no loop device is available, or an empty string if one is.
  static std::string unavailable() {
    if (geteuid() != 0) return "loop devices need root";
    if (access("/dev/loop-control", R_OK | W_OK) != 0) return "no /dev/loop-control on this machine";
    bool ok = false;
    const std::string device = runCommand("losetup --find 2>&1", ok);
    return ok ? "" : "no loop device is free: " + device;
  }

  bool hasKernelSlices() const {
    return slicesAdded_ && std::filesystem::exists(device_ + "p1") && std::filesystem::exists(device_ + "p3");
  }

  std::string disk() const override { return device_; }
  Buffer bytes(uint64_t offset, size_t count) const override {
    bool ok = false;
    runCommand("blockdev --flushbufs " + device_, ok);  // a slice's node has a separate page cache
    if (!ok) throw std::runtime_error("blockdev cannot flush " + device_);
    return readFile(device_, offset, count);
  }

 private:
  std::string device_;
  int keeper_ = -1;
  bool slicesAdded_ = false;
};

/// A world by name. `make` creates it, or returns null and the reason why this machine cannot have it.
struct WorldKind {
  const char* name;
  std::function<std::unique_ptr<DeviceWorld>(std::string& reason)> make;
};

inline void PrintTo(const WorldKind& kind, std::ostream* stream) {
  *stream << kind.name;
}

inline std::unique_ptr<DeviceWorld> makeLoopWorld(uint32_t blockSize, bool kernelSlices, std::string& reason) {
  reason = LoopWorld::unavailable();
  if (!reason.empty()) return nullptr;
  auto world = std::make_unique<LoopWorld>(blockSize, kernelSlices);
  if (!kernelSlices || world->hasKernelSlices()) return world;
  reason = "this kernel makes no nodes for slices of a loop device";
  return nullptr;
}

#ifdef VORLIX_MACOS_STANDINS
std::vector<WorldKind> allWorlds();  // in tests/macos
#else
inline std::vector<WorldKind> allWorlds() {
  const auto simulated = [](uint32_t size) {
    return [size](std::string&) -> std::unique_ptr<DeviceWorld> { return std::make_unique<SimulatedWorld>(size); };
  };
  const auto image = [](uint32_t size) {
    return [size](std::string&) -> std::unique_ptr<DeviceWorld> { return std::make_unique<ImageWorld>(size); };
  };
  const auto loop = [](uint32_t size, bool kernelSlices) {
    return [=](std::string& reason) { return makeLoopWorld(size, kernelSlices, reason); };
  };
  return {{"Simulated512", simulated(512)},
          {"Simulated4096", simulated(4096)},
          {"Image512", image(512)},
          {"Image4096", image(4096)},
          {"Loop512", loop(512, false)},
          {"Loop4096", loop(4096, false)},
          {"LoopWithNodes512", loop(512, true)},
          {"LoopWithNodes4096", loop(4096, true)}};
}
#endif

inline std::string worldName(const testing::TestParamInfo<WorldKind>& info) {
  return info.param.name;
}

/// Runs each test on each world. `world_` is null only in a skipped test.
class OnEveryWorld : public testing::TestWithParam<WorldKind> {
 protected:
  void SetUp() override {
    std::string reason;
    world_ = GetParam().make(reason);
    if (!world_) GTEST_SKIP() << reason;
  }

  std::unique_ptr<DeviceHandle> open(const std::string& path, DeviceAccess access = DeviceAccess::readOnly,
                                     DeviceLock lock = DeviceLock::none) const {
    return world_->ports().deviceFile->open(path, access, lock);
  }

  std::unique_ptr<DeviceWorld> world_;
};

}  // namespace vorlix::contract
