// SPDX-License-Identifier: Apache-2.0
//
// A thread's run loop that uses poll().
#pragma once

#include <Vorlix/platform/RunLoop.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vorlix {

/// Something that a loop waits for and handles. It may be in several modes and loops of one thread.
class RunLoopSource {
 public:
  virtual ~RunLoopSource() = default;

  /// Returns a descriptor that is readable when there is something to handle, or -1.
  virtual int descriptor() const { return -1; }

  /// Returns whether something can be handled without waiting for the descriptor.
  virtual bool isPending() const { return false; }

  /// Handles one thing. Called only if there is something to handle. It may add and remove sources and run the loop.
  virtual void handle() = 0;
};

/// Calls a handler whenever a descriptor can be read without waiting, also at its end. The owner of the descriptor
/// removes the source before closing the descriptor.
class ReadableDescriptor final : public RunLoopSource {
 public:
  ReadableDescriptor(int descriptor, std::function<void()> handler)
      : descriptor_(descriptor), handler_(std::move(handler)) {}
  int descriptor() const override { return descriptor_; }
  void handle() override { handler_(); }

 private:
  int descriptor_;
  std::function<void()> handler_;
};

class LinuxRunLoop final : public RunLoop, public std::enable_shared_from_this<LinuxRunLoop> {
 public:
  RunLoopResult run(const std::string& mode, std::chrono::milliseconds limit) override;

  /// Adds a source to a mode, unless the mode already has it.
  void add(const std::string& mode, const std::shared_ptr<RunLoopSource>& source);

  /// Removes a source from a mode. Does nothing if the mode does not have it.
  void remove(const std::string& mode, const std::shared_ptr<RunLoopSource>& source);

 private:
  using Sources = std::vector<std::shared_ptr<RunLoopSource>>;

  std::shared_ptr<RunLoopSource> waitForSource(const Sources& sources, std::chrono::milliseconds limit) const;

  std::map<std::string, Sources> modes_;
};

class LinuxRunLoops final : public RunLoops {
 public:
  std::shared_ptr<RunLoop> current() override;
};

}  // namespace vorlix
