// SPDX-License-Identifier: Apache-2.0
//
// Support for tests of the task wrapper: a wrapper that records its callbacks, and a pause that does not wait.
#pragma once

#include <Vorlix/QDTaskWrapperWithBlocks.h>
#include <Vorlix/platform/Pauses.h>

#include <algorithm>
#include <functional>
#include <optional>

#include "ProcessFixture.h"

namespace vorlix::test {

using Pieces = std::vector<std::optional<std::string>>;

inline std::shared_ptr<std::vector<std::string>> listOf(Texts texts) {
  return std::make_shared<std::vector<std::string>>(std::move(texts));
}

inline std::string joined(const Pieces& pieces) {
  std::string all;
  for (const auto& piece : pieces) all += piece.value_or("(absent)");
  return all;
}

/// A wrapper and a record of its callbacks.
struct Recorded {
  explicit Recorded(Texts command) : Recorded(listOf(std::move(command))) {}
  explicit Recorded(std::shared_ptr<const std::vector<std::string>> command) {
    wrapper =
        QDTaskWrapperWithBlocks::initWithStartBlock([this] { note("start", onStart); }, [this] { note("end", onEnd); },
                                                    [this](const std::optional<std::string>& text) {
                                                      output.push_back(text);
                                                      note("output", onOutput);
                                                    },
                                                    [this](const std::optional<std::string>& text) {
                                                      error.push_back(text);
                                                      note("error", onError);
                                                    },
                                                    std::move(command));
  }

  void note(const char* event, const std::function<void()>& then) {
    events.emplace_back(event);
    threads.push_back(std::this_thread::get_id());
    if (then) then();
  }

  ptrdiff_t count(const std::string& event) const { return std::count(events.begin(), events.end(), event); }
  bool runToEnd() const {
    return runUntil([this] { return count("end") > 0; });
  }

  std::shared_ptr<QDTaskWrapperWithBlocks> wrapper;
  std::function<void()> onStart, onEnd, onOutput, onError;
  Texts events;
  std::vector<std::thread::id> threads;
  Pieces output;
  Pieces error;
};

/// Records the requested pauses instead of waiting, and calls a function during each.
class NotedPauses : public Pauses {
 public:
  void pause(std::chrono::milliseconds time) override {
    noted.push_back(time);
    if (meanwhile) meanwhile();
  }

  std::vector<std::chrono::milliseconds> noted;
  std::function<void()> meanwhile;
};

class TaskWrapperTest : public NativeProcessTest {
 protected:
  TaskWrapperTest() {
    Platform ports = platform();
    ports.pauses = notedPauses_;
    setPlatform(std::move(ports));
  }

  /// Returns the status of a child that is about to end.
  static int32_t statusAtTheEnd(Recorded& run) {
    int32_t status = -999;
    comesTrue([&] { return (status = run.wrapper->terminationStatus()) != -999; });
    return status;
  }

 private:
  const std::shared_ptr<NotedPauses> notedPauses_ = std::make_shared<NotedPauses>();

 protected:
  std::vector<std::chrono::milliseconds>& pauses = notedPauses_->noted;
  std::function<void()>& inThePause = notedPauses_->meanwhile;
};

}  // namespace vorlix::test
