// SPDX-License-Identifier: Apache-2.0
//
// The files of the simulated machine, and copies of them.
#include <Vorlix/platform/FileCopy.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/SystemError.h>

#include <cerrno>

#include "SimulatedState.h"

namespace vorlix {
namespace {

using Kind = SimulatedItem::Kind;

class SimulatedFiles final : public Files {
 public:
  explicit SimulatedFiles(std::shared_ptr<SimulatedState> state)
      : state_(std::move(state)), native_(nativePlatform().files) {}

  std::optional<FileKind> kindOf(const std::string& path) override {
    if (state_->files.isUnused()) return native_->kindOf(path);
    const SimulatedItem* const item = state_->files.find(path);
    if (item == nullptr) return std::nullopt;
    if (item->kind == Kind::folder) return FileKind::folder;
    return item->kind == Kind::file ? FileKind::file : FileKind::other;
  }

  bool isLink(const std::string& path) override {
    if (state_->files.isUnused()) return native_->isLink(path);
    const SimulatedItem* const item = state_->files.find(path, false);
    return item != nullptr && item->kind == Kind::link;
  }

  std::optional<std::vector<std::string>> namesIn(const std::string& folder) override {
    if (state_->files.isUnused()) return native_->namesIn(folder);
    const SimulatedItem* const item = state_->files.find(folder);
    if (item == nullptr || item->kind != Kind::folder) return std::nullopt;
    std::vector<std::string> names;
    for (const auto& entry : item->entries) names.push_back(entry.first);
    return names;
  }

  std::optional<std::string> contentsOf(const std::string& path, size_t limit) override {
    if (state_->files.isUnused()) return native_->contentsOf(path, limit);
    const SimulatedItem* const item = state_->files.find(path);
    if (item == nullptr || item->kind != Kind::file || item->text.size() > limit) return std::nullopt;
    return item->text;
  }

 private:
  std::shared_ptr<SimulatedState> state_;
  std::shared_ptr<Files> native_;
};

class SimulatedFileCopy final : public FileCopy {
 public:
  explicit SimulatedFileCopy(std::shared_ptr<SimulatedState> state)
      : state_(std::move(state)), native_(nativePlatform().fileCopy) {}

  std::optional<std::string> copyItem(const std::string& source, const std::string& destination) override {
    state_->journal.push_back("copy " + source + " " + destination);
    const auto failure = state_->copyFailures.find(source);
    if (failure != state_->copyFailures.end()) return failure->second;
    if (state_->files.isUnused()) return native_->copyItem(source, destination);
    const SimulatedItem* const item = state_->files.find(source, false);
    if (item == nullptr) return SystemError{ENOENT}.reason();
    const bool isTaken = state_->files.find(destination, false) != nullptr;
    if (!state_->files.put(destination, item->copy())) return SystemError{isTaken ? EEXIST : ENOENT}.reason();
    return std::nullopt;
  }

 private:
  std::shared_ptr<SimulatedState> state_;
  std::shared_ptr<FileCopy> native_;
};

}  // namespace

std::shared_ptr<Files> makeSimulatedFiles(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedFiles>(std::move(state));
}

std::shared_ptr<FileCopy> makeSimulatedFileCopy(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedFileCopy>(std::move(state));
}

void SimulatedMachine::addFolder(const std::string& path) {
  state_->files.add(path, Kind::folder);
}

void SimulatedMachine::addFile(const std::string& path, const std::string& contents) {
  state_->files.add(path, Kind::file, contents);
}

void SimulatedMachine::addLink(const std::string& path, const std::string& target) {
  state_->files.add(path, Kind::link, target);
}

void SimulatedMachine::addPipe(const std::string& path) {
  state_->files.add(path, Kind::special);
}

void SimulatedMachine::ignoreCase(const std::string& folder) {
  state_->files.add(folder, Kind::folder).ignoresCase = true;
}

void SimulatedMachine::removeItem(const std::string& path) {
  state_->files.remove(path);
}

bool SimulatedMachine::holdsItem(const std::string& path) const {
  return state_->files.find(path, false) != nullptr;
}

std::optional<std::string> SimulatedMachine::contentsOf(const std::string& path) const {
  const SimulatedItem* const item = state_->files.find(path);
  if (item == nullptr || item->kind != Kind::file) return std::nullopt;
  return item->text;
}

}  // namespace vorlix
