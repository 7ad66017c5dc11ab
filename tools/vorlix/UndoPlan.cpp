// SPDX-License-Identifier: Apache-2.0
#include "UndoPlan.h"

#include <Vorlix/foundation/Sha256.h>
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/MountedVolumes.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/VolumeMirrors.h>
#include <Vorlix/platform/VolumeNames.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <utility>

#include "Arbitration.h"
#include "DeviceChanges.h"
#include "Failure.h"
#include "FileReplacement.h"
#include "Files.h"

namespace vorlix::tool {
namespace {

constexpr size_t kLargestRestoredFile = size_t{256} * 1024 * 1024;

Standing standingOf(const ByteVector& now, const ByteChange& run) {
  if (now == run.before) return Standing::changed;
  return now == run.after ? Standing::restored : Standing::other;
}

[[noreturn]] void refuse(const std::string& subject, const std::string& what, const KeptChange& kept) {
  throw Failure(subject, what + " was changed since, so nothing is undone; the old content is in " + kept.folder);
}

// A mounted volume's driver would not see that its sectors change.
void refuseMounted(const std::string& device, bool isWholeDisk) {
  if (!isWholeDisk) {
    if (const auto folder = mountPointOf(device)) throw Failure(device, "mounted at " + *folder + "; unmount it first");
    return;
  }
  const std::string whole = wholeDiskNameOf(device);
  for (const MountedVolume& volume : platform().mountedVolumes->volumes()) {
    std::string disk;
    try {
      disk = wholeDiskNameOf(volume.mountedFrom);
    } catch (const Failure&) {
      continue;  // no disk: a folder of the system's
    }
    if (disk != whole) continue;
    throw Failure(device, volume.mountedFrom + " of it is mounted; unmount it first");
  }
}

}  // namespace

DeviceUndo::DeviceUndo(const KeptChange& kept, const std::string& on, bool writes) {
  change_.title = kept.undo.title;
  std::shared_ptr<DeviceHandle> disk;
  if (!on.empty() && !kept.undo.devices.empty()) {
    refuseMounted(on, true);
    disk = open(on, writes);
  }
  for (size_t i = 0; i < kept.undo.devices.size(); ++i) {
    const DeviceChange& wanted = kept.undo.devices[i];
    DeviceChange device = {on.empty() ? wanted.device : on, disk, {}};
    if (!disk) {
      if (namesOf(wanted.device).isSlice()) refuseMounted(wanted.device, false);
      device.handle = open(wanted.device, writes);
    } else if (!kept.offsets[i]) {
      throw Failure(wanted.device, "the backup does not say where it was on its disk");
    }
    for (ByteChange run : wanted.bytes) {
      if (disk) run.offset += *kept.offsets[i];
      const ByteVector now = readDevice(*device.handle, device.device, run.offset, run.before.size());
      switch (tool::standingOf(now, run)) {
        case Standing::changed:
          device.bytes.push_back(std::move(run));
          break;
        case Standing::restored:
          break;
        case Standing::other:
          refuse(device.device, run.reason, kept);
      }
    }
    change_.devices.push_back(std::move(device));
  }
}

std::shared_ptr<DeviceHandle> DeviceUndo::open(const std::string& device, bool writes) {
  return writes ? openToChange(device) : openToLook(device);
}

FileUndo::FileUndo(const KeptChange& kept, const std::string& on) {
  if (kept.files.empty()) return;
  const std::string volume = on.empty() ? kept.files.front().volume : on;
  std::error_code error;
  if (std::filesystem::is_directory(volume, error)) {
    root_ = std::filesystem::canonical(volume, error).string();
  } else if (!volume.empty()) {
    mounted_ = std::make_unique<MountedSlice>(volume);
    root_ = mounted_->path();
  }
  isCaseBlind_ = mounted_ ? isCaseBlindDevice(volume) : isCaseBlindMount(root_.empty() ? "/" : root_);
  for (const FileChange& file : kept.files) {
    const std::string path = root_ + file.path;
    switch (standingOf(file)) {
      case Standing::changed:
        steps_.push_back({&file, path});
        break;
      case Standing::restored:
        break;
      case Standing::other:
        refuse(path, "it", kept);
    }
  }
}

// The folder that a file is in. Absent if it does not exist.
std::optional<VolumeFolder> FileUndo::parentOf(const FileChange& file) const {
  VolumeFolder folder(root_.empty() ? "/" : root_, isCaseBlind_);
  std::istringstream names(std::filesystem::path(file.path).parent_path().string());
  for (std::string name; std::getline(names, name, '/');) {
    if (name.empty()) continue;
    if (!folder.find(name)) return std::nullopt;
    folder = folder.folder(name);
  }
  return folder;
}

Standing FileUndo::standingOf(const FileChange& file) const {
  const std::optional<VolumeFolder> folder = parentOf(file);
  const auto name = folder ? folder->find(std::filesystem::path(file.path).filename().string()) : std::nullopt;
  const auto status = name ? folder->statusOf(*name) : std::nullopt;
  if (!status) return file.before ? Standing::other : Standing::restored;
  if (file.isFolder) return S_ISDIR(status->st_mode) ? Standing::changed : Standing::other;
  if (!S_ISREG(status->st_mode)) return Standing::other;
  const ByteVector now = folder->content(*name, kLargestRestoredFile);
  if (sha256(now) == file.after) return Standing::changed;
  return now == file.before ? Standing::restored : Standing::other;
}

std::vector<std::string> FileUndo::run() {
  std::vector<std::string> left;
  std::string state = kNothingWritten;
  for (auto step = steps_.rbegin(); step != steps_.rend(); ++step) {
    const FileChange& file = *step->file;
    const std::optional<VolumeFolder> folder = parentOf(file);
    const auto name = folder ? folder->find(std::filesystem::path(file.path).filename().string()) : std::nullopt;
    if (!name) throw Failure(step->path, "it was removed meanwhile", state);
    if (file.before) {
      FileReplacement(*folder, *name).replaceBy(*file.before, [] {});
    } else if (unlinkat(folder->descriptor(), name->c_str(), file.isFolder ? AT_REMOVEDIR : 0) != 0) {
      const bool hasOtherFiles = file.isFolder && (errno == ENOTEMPTY || errno == EEXIST);
      if (!hasOtherFiles) throw Failure::ofErrno(step->path, errno, state);
      left.push_back(step->path);
    }
    state = "some of the files are undone; run the command again for the rest";
    folder->sync(state);
  }
  if (mounted_) {
    // The files may have been made on an empty volume.
    if (!steps_.empty()) platform().volumeMirrors->allowEmpty(root_);
    mounted_->finish("the old content");
  }
  return left;
}

UndoState stateOf(const KeptChange& kept) {
  bool isAnyChanged = false;
  bool isAnyOther = false;
  for (const DeviceChange& device : kept.undo.devices) {
    const auto handle = platform().deviceFile->open(device.device, DeviceAccess::readOnly, DeviceLock::none);
    if (!handle) return UndoState::unreachable;
    for (const ByteChange& run : device.bytes) {
      ByteVector now(run.before.size());
      const ssize_t got = handle->readAt(now.data(), now.size(), run.offset);
      if (got != static_cast<ssize_t>(now.size())) return UndoState::unreachable;
      const Standing standing = tool::standingOf(now, run);
      isAnyChanged |= standing == Standing::changed;
      isAnyOther |= standing == Standing::other;
    }
  }
  if (!kept.files.empty()) {
    try {
      // Looking must not mount a volume.
      const std::string& volume = kept.files.front().volume;
      const std::string folder = volume.empty() ? "/" : mountPointOf(volume).value_or("");
      if (folder.empty()) return UndoState::unreachable;
      isAnyChanged |= !FileUndo(kept, folder).steps().empty();
    } catch (const Failure&) {
      isAnyOther = true;
    }
  }
  if (isAnyOther) return UndoState::changed;
  return isAnyChanged ? UndoState::undoable : UndoState::undone;
}

}  // namespace vorlix::tool
