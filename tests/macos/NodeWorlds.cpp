// SPDX-License-Identifier: Apache-2.0
//
// The machines on which the device ports' contracts run over the macOS adapters: block nodes, raw nodes and image
// files.
#include "tests/contract/DeviceWorlds.h"
#include "tests/macos/standin/System.h"

namespace vorlix::contract {
namespace {

class NodeWorld final : public DeviceWorld {
 public:
  NodeWorld(uint32_t blockSize, const char* prefix) : DeviceWorld(blockSize), prefix_(prefix) {
    machine_.addDisk("disk0", diskSize(), blockSize);
    machine_.addSlice("disk0", 1, sliceFirst(1), kSliceBlocks);
    machine_.addSlice("disk0", 3, sliceFirst(3), kSliceBlocks);
    machine_.setBytes("disk0", 0, gptOf(blockSize, kDiskBlocks, usualSlices()));
    machine_.setBytes("disk0", kPatternFirst * blockSize,
                      pattern(kPatternFirst * blockSize, kPatternBlocks * blockSize));
    standin::show(machine_);
  }
  ~NodeWorld() override { standin::showUsual(); }

  Platform ports() const override { return nativePlatform(); }
  std::string disk() const override { return prefix_ + "disk0"; }
  Buffer bytes(uint64_t offset, size_t count) const override { return machine_.bytes("disk0", offset, count); }
  size_t openCount() const override { return machine_.openCount() + openDescriptors().size(); }
  void lockElsewhere(DeviceLock lock) override {
    if (machine_.openCount() != 0) throw std::runtime_error("the other process would not get its lock");
    standin::system().openedElsewhere["disk0"] = lock;
  }
  void unlockElsewhere() override { standin::system().openedElsewhere.clear(); }
  bool locksAreAccess() const override { return true; }
  bool slicesStayBesideWriter() const override { return prefix_ == "/dev/"; }

 private:
  std::string prefix_;
  SimulatedMachine machine_;
};

}  // namespace

std::vector<WorldKind> allWorlds() {
  const auto node = [](uint32_t size, const char* prefix) {
    return [=](std::string&) -> std::unique_ptr<DeviceWorld> { return std::make_unique<NodeWorld>(size, prefix); };
  };
  const auto image = [](uint32_t size) {
    return [size](std::string&) -> std::unique_ptr<DeviceWorld> { return std::make_unique<ImageWorld>(size); };
  };
  return {{"Node512", node(512, "/dev/")},       {"Node4096", node(4096, "/dev/")}, {"RawNode512", node(512, "/dev/r")},
          {"RawNode4096", node(4096, "/dev/r")}, {"Image512", image(512)},          {"Image4096", image(4096)}};
}

}  // namespace vorlix::contract
