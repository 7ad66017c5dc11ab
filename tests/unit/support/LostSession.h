// SPDX-License-Identifier: Apache-2.0
//
// Disk arbitration that never completes a request, and a loop without sources.
#pragma once

#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/RunLoop.h>

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vorlix::test {

class LostDisk : public Disk {
 public:
  std::optional<std::string> bsdName() override { return "disk2s1"; }
  std::optional<Dictionary> copyDescription() override { return std::nullopt; }
  std::shared_ptr<Disk> wholeDisk() override { return nullptr; }
  void mount(const std::vector<std::string>&, DiskCompletion) override {}
  void unmount(DiskCompletion) override {}
};

class LostSession : public DiskArbitrationSession {
 public:
  std::shared_ptr<Disk> diskFromBSDName(const std::string&) override { return std::make_shared<LostDisk>(); }
  std::shared_ptr<Disk> diskFromVolumePath(const URL&) override { return nullptr; }
  void schedule(RunLoop&, const std::string&) override {}
  void unschedule(RunLoop&, const std::string&) override {}
};

class LostArbitration : public DiskArbitration {
 public:
  std::shared_ptr<DiskArbitrationSession> createSession() override { return std::make_shared<LostSession>(); }
};

class EmptyLoop : public RunLoop, public RunLoops, public std::enable_shared_from_this<EmptyLoop> {
 public:
  RunLoopResult run(const std::string&, std::chrono::milliseconds) override {
    if (++runs > 1000) throw std::runtime_error("the loop runs again and again without a source");
    return RunLoopResult::noSources;
  }
  std::shared_ptr<RunLoop> current() override { return shared_from_this(); }

  int runs = 0;
};

inline Platform withLostSession(Platform ports, const std::shared_ptr<EmptyLoop>& loop) {
  ports.diskArbitration = std::make_shared<LostArbitration>();
  ports.runLoops = loop;
  return ports;
}

}  // namespace vorlix::test
