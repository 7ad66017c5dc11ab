// SPDX-License-Identifier: Apache-2.0
//
// Children of the simulated machine. They do what their programs say. Their state changes only when it is asked for.
#include <Vorlix/platform/ChildProcess.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "SimulatedState.h"

namespace vorlix {
namespace {

/// A child and its pipes, shared by its handle and the read ends of the pipes.
struct SimulatedTask {
  SimulatedRun run;
  bool launched = false;
  bool terminated = false;

  bool isRunning() const { return launched && !terminated && (run.staysOn || !run.pieces.empty()); }

  void terminate() {
    if (!isRunning() || run.ignoresTermination) return;
    terminated = true;
    run.pieces.clear();
  }
};

class SimulatedOutput final : public ChildOutput {
 public:
  /// @param stream  the stream that the pipe carries; absent for both.
  SimulatedOutput(std::shared_ptr<SimulatedState> state, std::shared_ptr<SimulatedTask> task,
                  std::optional<SimulatedRun::Stream> stream)
      : state_(std::move(state)), task_(std::move(task)), stream_(stream) {}
  ~SimulatedOutput() override { cancelBackgroundRead(); }

  Data read() override {
    const auto piece = nextPiece();
    if (piece != task_->run.pieces.end()) {
      Data chunk(piece->bytes.begin(), piece->bytes.end());
      task_->run.pieces.erase(piece);
      return chunk;
    }
    const bool staysOpen = !task_->launched || (task_->isRunning() && task_->run.staysOn);
    if (staysOpen) throw std::logic_error("nothing will ever be written to this pipe, and it stays open");
    endRead_ = true;
    return {};
  }

  Data readAvailable() override { return nextPiece() != task_->run.pieces.end() ? read() : Data(); }

  void readInBackground(Completion completion) override {
    cancelBackgroundRead();
    const auto isReady = [this] { return nextPiece() != task_->run.pieces.end() || (hasEnded() && !endRead_); };
    const auto place = [this] { return static_cast<size_t>(nextPiece() - task_->run.pieces.begin()); };
    const auto complete = [this, completion = std::move(completion)] { completion(read()); };
    const RunLoop* const loop = makeSimulatedRunLoops(state_)->current().get();
    state_->reads.push_back({this, task_.get(), loop, isReady, place, complete});
  }

  void cancelBackgroundRead() override {
    std::erase_if(state_->reads, [this](const PendingRead& pending) { return pending.reader == this; });
  }

 private:
  std::vector<SimulatedRun::Piece>::iterator nextPiece() const {
    std::vector<SimulatedRun::Piece>& pieces = task_->run.pieces;
    if (!task_->launched) return pieces.end();
    return std::find_if(pieces.begin(), pieces.end(),
                        [this](const SimulatedRun::Piece& piece) { return !stream_ || piece.stream == *stream_; });
  }

  // For the loop, a child closes its streams when nothing is left to read from either.
  bool hasEnded() const { return task_->launched && !task_->isRunning(); }

  std::shared_ptr<SimulatedState> state_;
  std::shared_ptr<SimulatedTask> task_;
  std::optional<SimulatedRun::Stream> stream_;
  bool endRead_ = false;
};

class SimulatedChild final : public Child {
 public:
  SimulatedChild(std::shared_ptr<SimulatedState> state, ChildOutputs outputs)
      : state_(std::move(state)), task_(std::make_shared<SimulatedTask>()) {
    if (outputs == ChildOutputs::shared) {
      output_ = std::make_shared<SimulatedOutput>(state_, task_, std::nullopt);
      error_ = output_;
    } else {
      output_ = std::make_shared<SimulatedOutput>(state_, task_, SimulatedRun::Stream::output);
      error_ = std::make_shared<SimulatedOutput>(state_, task_, SimulatedRun::Stream::error);
    }
  }

  std::shared_ptr<ChildOutput> standardOutput() override { return output_; }
  std::shared_ptr<ChildOutput> standardError() override { return error_; }

  void launch(const std::string& path, const std::vector<std::string>& arguments) override {
    if (task_->launched) throw std::logic_error("a child is launched once");
    std::string line = "launch " + path;
    for (const std::string& argument : arguments) line += " " + argument;
    state_->journal.push_back(line);
    const auto program = state_->programs.find(path);
    if (program == state_->programs.end()) throw std::system_error(ENOENT, std::generic_category(), path);
    path_ = path;
    task_->run = program->second(arguments);
    task_->launched = true;
  }

  bool isRunning() override { return task_->isRunning(); }

  int32_t terminationStatus() override {
    if (!task_->launched || task_->isRunning()) return 0;
    return task_->terminated ? SIGTERM : task_->run.status;
  }

  void terminate() override {
    if (!task_->launched) return;
    state_->journal.push_back("terminate " + path_);
    task_->terminate();
  }

 private:
  std::shared_ptr<SimulatedState> state_;
  std::shared_ptr<SimulatedTask> task_;
  std::shared_ptr<ChildOutput> output_;
  std::shared_ptr<ChildOutput> error_;
  std::string path_;
};

class SimulatedChildProcess final : public ChildProcess {
 public:
  explicit SimulatedChildProcess(std::shared_ptr<SimulatedState> state) : state_(std::move(state)) {}

  std::shared_ptr<Child> create(ChildOutputs outputs, ChildInput) override {
    return std::make_shared<SimulatedChild>(state_, outputs);
  }

 private:
  std::shared_ptr<SimulatedState> state_;
};

}  // namespace

bool SimulatedState::hasPendingRead(const RunLoop& loop) const {
  return std::any_of(reads.begin(), reads.end(), [&](const PendingRead& pending) { return pending.loop == &loop; });
}

bool SimulatedState::completeRead(const RunLoop& loop) {
  const auto canBe = [&](const PendingRead& pending) { return pending.loop == &loop && pending.isReady(); };
  auto ready = std::find_if(reads.begin(), reads.end(), canBe);
  if (ready == reads.end()) return false;
  for (auto other = ready + 1; other != reads.end(); ++other) {
    if (other->child == ready->child && canBe(*other) && other->place() < ready->place()) ready = other;
  }
  const PendingRead pending = std::move(*ready);
  reads.erase(ready);  // the completion may begin the next one
  pending.complete();
  return true;
}

std::shared_ptr<ChildProcess> makeSimulatedChildProcess(std::shared_ptr<SimulatedState> state) {
  return std::make_shared<SimulatedChildProcess>(std::move(state));
}

}  // namespace vorlix
