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
#include <charconv>
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

// Looks at what a change wrote. If that fails at a part of a change, the rest can still be undone.
template <typename Look>
void lookAt(const KeptChange& kept, const Look& look) {
  try {
    look();
  } catch (const Failure& failure) {
    if (kept.partOf.empty()) throw;
    throw failure.with("removing " + kept.folder + " leaves this part out");
  }
}

// Every form of a slice's name ends with its number: "mac.imgs1", "sda1", "nvme0n1p1".
uint32_t numberOfSlice(const std::string& name) {
  const size_t digits = name.find_last_not_of("0123456789") + 1;
  uint32_t number = 0;
  std::from_chars(name.data() + digits, name.data() + name.size(), number);
  return number;
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

void DeviceUndo::add(const KeptChange& kept) {
  if (change_.title.empty()) change_.title = kept.undo.title;
  if (!on_.empty() && !disk_ && !kept.undo.devices.empty()) {
    refuseMounted(on_, true);
    disk_ = open(on_);
  }
  for (size_t i = 0; i < kept.undo.devices.size(); ++i) {
    const DeviceChange& wanted = kept.undo.devices[i];
    DeviceChange device = {disk_ ? on_ : wanted.device, disk_, {}};
    if (!disk_) {
      if (namesOf(wanted.device).isSlice()) refuseMounted(wanted.device, false);
      device.handle = open(wanted.device);
    } else if (!kept.offsets[i]) {
      throw Failure(wanted.device, "the backup does not say where it was on its disk");
    }
    for (ByteChange run : wanted.bytes) {
      if (disk_) run.offset += *kept.offsets[i];
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

void DeviceUndo::close() {
  disk_.reset();
  for (DeviceChange& device : change_.devices) device.handle.reset();
}

std::shared_ptr<DeviceHandle> DeviceUndo::open(const std::string& device) const {
  return writes_ ? openToChange(device) : openToLook(device);
}

FileUndo::FileUndo(const KeptChange& kept, const std::string& on) : files_(&kept.files) {
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
    if (!file.before && !file.isFolder) {
      made_.push_back(file.path);
      made_.push_back(FileReplacement::asideNameOf(file.path));
    }
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

// A change that was killed may have left a file beside the one that it was to become.
void FileUndo::removeLeftovers() const {
  for (const FileChange& file : *files_) {
    const std::optional<VolumeFolder> folder = file.isFolder ? std::nullopt : parentOf(file);
    if (folder) FileReplacement(*folder, std::filesystem::path(file.path).filename().string());
  }
}

// @param state  set once something is changed
void FileUndo::undo(const Step& step, std::string& state, std::vector<std::string>& left) {
  const FileChange& file = *step.file;
  const std::optional<VolumeFolder> folder = parentOf(file);
  const auto name = folder ? folder->find(std::filesystem::path(file.path).filename().string()) : std::nullopt;
  if (!name) throw Failure(step.path, "it was removed meanwhile");
  if (file.before) {
    FileReplacement(*folder, *name).replaceBy(*file.before, [] {});
  } else if (unlinkat(folder->descriptor(), name->c_str(), file.isFolder ? AT_REMOVEDIR : 0) != 0) {
    const bool hasOtherFiles = file.isFolder && (errno == ENOTEMPTY || errno == EEXIST);
    if (!hasOtherFiles) throw Failure::ofErrno(step.path, errno);
    left.push_back(step.path);
  }
  state = "some of the files are undone; run the command again for the rest";
  folder->sync(state);
}

std::vector<std::string> FileUndo::run() {
  std::vector<std::string> left;
  std::string state = kNothingWritten;
  try {
    removeLeftovers();
    for (auto step = steps_.rbegin(); step != steps_.rend(); ++step) undo(*step, state, left);
  } catch (const Failure& failure) {
    throw failure.in(state);
  }
  if (mounted_) {
    // The files may have been made on an empty volume. An undo that was killed may have removed all of them.
    platform().volumeMirrors->allowEmpty(root_, made_);
    mounted_->finish("the old content");
  }
  return left;
}

WholeUndo::WholeUndo(std::vector<KeptChange> changes, std::string on, bool writes)
    : changes_(std::move(changes)), on_(std::move(on)), devices_(on_, writes) {
  for (const KeptChange& kept : changes_) lookAt(kept, [&] { devices_.add(kept); });
  const bool hasFiles =
      std::any_of(changes_.begin(), changes_.end(), [](const KeptChange& kept) { return !kept.files.empty(); });
  if (hasFiles) devices_.close();  // a volume of the disk is mounted, which locks it
  for (const KeptChange& kept : changes_) {
    if (kept.files.empty()) continue;
    lookAt(kept, [&] { files_.push_back(std::make_unique<FileUndo>(kept, volumeWithFilesOf(kept))); });
  }
}

// A part of a change to a disk is on the same slice of the disk that the user named.
std::string WholeUndo::volumeWithFilesOf(const KeptChange& kept) const {
  if (on_.empty() || kept.partOf.empty()) return on_;
  return sliceNameOf(on_, numberOfSlice(kept.files.front().volume));
}

std::vector<FileUndo::Step> WholeUndo::steps() const {
  std::vector<FileUndo::Step> steps;
  for (const auto& files : files_) steps.insert(steps.end(), files->steps().begin(), files->steps().end());
  return steps;
}

WholeUndo::Done WholeUndo::run(const ChangeBackup& backup) {
  Done done;
  for (const auto& files : files_) {
    const std::vector<std::string> left = files->run();
    done.left.insert(done.left.end(), left.begin(), left.end());
  }
  if (bytes().empty()) return done;
  if (files_.empty()) {
    done.redo = applyOrFail(bytes(), backup);
    return done;
  }
  try {
    devices_ = DeviceUndo(on_, true);
    for (const KeptChange& kept : changes_) devices_.add(kept);
    done.redo = applyOrFail(bytes(), backup);
  } catch (const Failure& failure) {
    throw Failure(changes_.front().undo.title, failure.changedNothing() ? failure.what() : failure.text(true, ""),
                  "the files are restored; run the command again for the rest");
  }
  return done;
}

void WholeUndo::forget() {
  // The change itself last, so that a process that ends before can be run again.
  for (auto kept = changes_.rbegin(); kept != changes_.rend(); ++kept) {
    if (isKeptInStateFolder(kept->folder)) dropKeptChange(kept->folder);
  }
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
