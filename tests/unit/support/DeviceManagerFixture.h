// SPDX-License-Identifier: Apache-2.0
//
// The shared device manager with a delegate that collects lines, on a simulated machine with mounted volumes.
#pragma once

#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/platform/MountedVolumes.h>
#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "DiskFixture.h"
#include "StandardStreams.h"

namespace vorlix::test {

/// Keeps the lines that it receives.
class LineCollector : public Object, public LogReceiver {
 public:
  void log(const std::string& line) override {
    lines.push_back(line);
    if (onLine) onLine(line);
  }

  Lines lines;
  std::function<void(const std::string&)> onLine;  ///< called after a line has been stored
};

/// A delegate that cannot receive lines.
class DeafDelegate : public Object {};

using Volumes = std::vector<std::shared_ptr<QDVolume>>;

inline Lines namesOf(const Volumes& volumes) {
  Lines names;
  for (const auto& volume : volumes) names.push_back(volume->diskName().value_or("(none)"));
  return names;
}

/// A program that prints a string and ends.
inline SimulatedRun printing(const std::string& output) {
  SimulatedRun run;
  if (!output.empty()) run.pieces = {{SimulatedRun::Stream::output, output}};
  return run;
}

/// A record as a host may create it.
inline std::shared_ptr<QDVolume> makeVolume(const std::optional<std::string>& device,
                                            const std::optional<std::string>& path = std::nullopt,
                                            const std::optional<std::string>& type = std::nullopt) {
  const auto volume = QDVolume::init();
  volume->setDevice(device);
  volume->setFilePath(path);
  volume->setFileSystemType(type);
  return volume;
}

/// The folder in which the simulated machine mounts volumes. These are only names, not folders of this system.
struct VolumesFolder {
  std::string operator/(const std::string& name) const { return "/Volumes/" + name; }
};

class DeviceManagerTest : public DiskTest {
 protected:
  DeviceManagerTest() { makeFolder(""); }

  void SetUp() override {
    manager->setDelegate(delegate);
    manager->setFileManager(FileManager::defaultManager());
    manager->setDidMount(false);
    manager->setDidUnmount(false);
    manager->setMountStatus(0);
    manager->setUnmountStatus(0);
  }

  void TearDown() override {
    manager->setDelegate(nullptr);
    manager->setFileManager(FileManager::defaultManager());
  }

  const Lines& lines() const { return delegate->lines; }

  /// Returns one of the lines, or a text that no test expects.
  std::string line(size_t index) const { return index < lines().size() ? lines()[index] : "(no such line)"; }
  std::string lastLine() const { return line(lines().size() - 1); }

  /// Adds a slice such as "disk2s3", and its disk if the machine has none of that name.
  void addDevice(const std::string& slice) {
    const size_t split = slice.rfind('s');
    const std::string disk = slice.substr(0, split);
    if (disks_.insert(disk).second) machine.addDisk(disk, 1 << 20, 512);
    machine.addSlice(disk, static_cast<uint32_t>(std::stoul(slice.substr(split + 1))), 40, 100);
  }

  /// Mounts a volume and creates an empty folder with its name. @return its mount path.
  std::string mountVolume(const std::string& device, const std::string& name, const std::string& kind) {
    return mountVolumeFrom("/dev/" + device, device, name, kind);
  }

  /// The same, with a source name that only its driver uses.
  std::string mountVolumeFrom(const std::string& source, const std::string& device, const std::string& name,
                              const std::string& kind) {
    addDevice(device);
    makeFolder(name);
    const std::string path = mounts / name;
    SimulatedVolume volume;
    volume.kind = kind;
    volume.name = name;
    volume.mountPath = path;
    volume.mounted = true;
    machine.setVolume(device, volume);
    machine.addMountedVolume({name, path, source, 1000000000, 250000000});
    return path;
  }

  /// Creates the folders by which Windows is detected, on the volume of that name.
  void installWindows(const std::string& name) { makeFolder(name + "/Windows/System32"); }

  /// Creates a folder below the volumes' folder, with its parents.
  void makeFolder(const std::string& name) { machine.addFolder(mounts / name); }

  /// Creates a file with its parent folders. @return its path.
  std::string placeFile(const std::string& name, const std::string& content = "x") {
    machine.addFile(mounts / name, content);
    return mounts / name;
  }

  ptrdiff_t countOf(const std::string& line) const {
    const Lines journal = machine.journal();
    return std::count(journal.begin(), journal.end(), line);
  }

  const VolumesFolder mounts{};
  const std::shared_ptr<QDDeviceManager> manager = QDDeviceManager::sharedDeviceManager();
  const std::shared_ptr<LineCollector> delegate = std::make_shared<LineCollector>();

 private:
  std::set<std::string> disks_;
};

}  // namespace vorlix::test
