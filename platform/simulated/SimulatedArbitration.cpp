// SPDX-License-Identifier: Apache-2.0
//
// Disk arbitration of the simulated machine: descriptions, mounts and unmounts.

#include <cerrno>

#include "SimulatedState.h"

namespace vorlix {
namespace {

void describeVolume(const SimulatedVolume& volume, Dictionary& description) {
  description.set(kDescriptionVolumeKind, volume.kind);
  description.set(kDescriptionVolumeMountable, true);
  description.set(kDescriptionVolumeName, volume.name);
  description.set(kDescriptionVolumeType, volume.kind);
  if (volume.uuid) description.set(kDescriptionVolumeUUID, *volume.uuid);
  if (volume.mounted) description.set(kDescriptionVolumePath, URL::fileURLWithPath(volume.mountPath, true));
}

Dictionary describeDevice(const std::string& name, const SimulatedWindow& window, const SimulatedWhole& whole) {
  Dictionary description;
  if (whole.blockSize) description.set(kDescriptionMediaBlockSize, int64_t{*whole.blockSize});
  description.set(kDescriptionMediaBSDName, name);
  description.set(kDescriptionMediaSize, static_cast<int64_t>(window.size));
  return description;
}

Dictionary changed(const Dictionary& description, const std::map<std::string, std::optional<Value>>& changes) {
  std::map<std::string, Value> values = description.values();
  for (const auto& [key, value] : changes) {
    if (value) {
      values.insert_or_assign(key, *value);
    } else {
      values.erase(key);
    }
  }
  Dictionary result;
  for (const auto& [key, value] : values) result.set(key, value);
  return result;
}

class SimulatedDisk final : public Disk {
 public:
  SimulatedDisk(std::shared_ptr<SimulatedState> state, SessionID session, std::string name)
      : state_(std::move(state)), session_(session), name_(std::move(name)) {}

  std::optional<std::string> bsdName() override { return name_; }

  std::optional<Dictionary> copyDescription() override {
    state_->journal.push_back("describe " + name_);
    const ArbitrationView& view = state_->view(name_);
    if (view.descriptionHidden) return std::nullopt;
    const SimulatedWindow& window = state_->device(name_);
    Dictionary description = describeDevice(name_, window, state_->disks.at(window.disk));
    if (view.volume) describeVolume(*view.volume, description);
    return changed(description, view.descriptionChanges);
  }

  std::shared_ptr<Disk> wholeDisk() override {
    if (state_->view(name_).wholeDiskHidden) {
      errno = ENOENT;
      return nullptr;
    }
    return std::make_shared<SimulatedDisk>(state_, session_, state_->device(name_).disk);
  }

  void mount(const std::vector<std::string>& arguments, DiskCompletion completion) override {
    std::string line = "mount " + name_;
    for (const std::string& argument : arguments) line += " " + argument;
    state_->journal.push_back(std::move(line));
    ask(MountAction::mount, std::move(completion));
  }

  void unmount(DiskCompletion completion) override {
    state_->journal.push_back("unmount " + name_);
    ask(MountAction::unmount, std::move(completion));
  }

 private:
  void ask(MountAction action, DiskCompletion completion) {
    MountRequest request{session_, name_, action, std::move(completion), state_->completionDelay};
    if (!state_->openSessions.contains(session_)) {
      static_cast<void>(state_->carryOut(request));  // no caller is left that could get the result
    } else {
      state_->requests.push_back(std::move(request));
    }
  }

  std::shared_ptr<SimulatedState> state_;
  SessionID session_;
  std::string name_;
};

class SimulatedSession final : public DiskArbitrationSession {
 public:
  explicit SimulatedSession(std::shared_ptr<SimulatedState> state)
      : state_(std::move(state)), id_(++state_->lastSession) {
    state_->openSessions.insert(id_);
    state_->journal.push_back("session open");
  }
  ~SimulatedSession() override {
    finishRequests();
    state_->openSessions.erase(id_);
    std::erase_if(state_->schedule, [this](const ScheduledSession& entry) { return entry.session == id_; });
    state_->journal.push_back("session close");
  }
  SimulatedSession(const SimulatedSession&) = delete;
  SimulatedSession& operator=(const SimulatedSession&) = delete;

  std::shared_ptr<Disk> diskFromBSDName(const std::string& name) override {
    const std::string bare = bareDeviceName(name);
    if (!state_->devices.contains(bare)) return nullptr;
    return std::make_shared<SimulatedDisk>(state_, id_, bare);
  }

  std::shared_ptr<Disk> diskFromVolumePath(const URL& path) override {
    const auto [first, end] = state_->devicesByMountPath.equal_range(path.path());
    for (auto device = first; device != end; ++device) {
      const auto& volume = state_->view(device->second).volume;
      if (volume && volume->mounted && volume->mountPath == path.path()) {
        return std::make_shared<SimulatedDisk>(state_, id_, device->second);
      }
    }
    return nullptr;
  }

  void schedule(RunLoop& loop, const std::string& mode) override {
    state_->journal.push_back("schedule " + mode);
    state_->schedule.push_back({id_, &loop, mode});
  }

  void unschedule(RunLoop& loop, const std::string& mode) override {
    state_->journal.push_back("unschedule " + mode);
    std::erase(state_->schedule, ScheduledSession{id_, &loop, mode});
  }

 private:
  // The system carries out requests even if nobody waits for the result any more.
  void finishRequests() {
    for (const MountRequest& request : state_->requests) {
      if (request.session == id_) static_cast<void>(state_->carryOut(request));
    }
    std::erase_if(state_->requests, [this](const MountRequest& request) { return request.session == id_; });
  }

  std::shared_ptr<SimulatedState> state_;
  SessionID id_;
};

class SimulatedArbitration final : public DiskArbitration {
 public:
  explicit SimulatedArbitration(std::shared_ptr<SimulatedState> state) : state_(std::move(state)) {}

  std::shared_ptr<DiskArbitrationSession> createSession() override {
    if (state_->sessionsRefused) return nullptr;
    return std::make_shared<SimulatedSession>(state_);
  }

  // Works without a session, so that the journal has only the sessions that the library opens.
  std::optional<std::string> volumeKindAt(const URL& path) override {
    const auto [first, end] = state_->devicesByMountPath.equal_range(path.path());
    for (auto device = first; device != end; ++device) {
      const auto& volume = state_->view(device->second).volume;
      if (volume && volume->mounted && volume->mountPath == path.path()) return volume->kind;
    }
    return std::nullopt;
  }

 private:
  std::shared_ptr<SimulatedState> state_;
};

}  // namespace

ArbitrationView& SimulatedState::view(const std::string& name) {
  static_cast<void>(device(name));
  return views[bareDeviceName(name)];
}

std::optional<Dissenter> SimulatedState::carryOut(const MountRequest& request) {
  ArbitrationView& target = view(request.device);
  const bool mounting = request.action == MountAction::mount;
  if (const auto& refusal = mounting ? target.mountRefusal : target.unmountRefusal) return refusal;
  if (mounting && !target.volume) return Dissenter{kDissentUnsupported, ""};
  if (mounting && target.volume->mounted) return Dissenter{kDissentBusy, ""};
  if (!mounting && !(target.volume && target.volume->mounted)) return Dissenter{kDissentNotMounted, ""};
  target.volume->mounted = mounting;
  return std::nullopt;
}

std::shared_ptr<DiskArbitration> makeSimulatedArbitration(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedArbitration>(std::move(state));
}

}  // namespace vorlix
