// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include <Vorlix/platform/Descriptor.h>
#include "PipeOutput.h"
#include "ProgramStart.h"
#include "Spawning.h"

namespace vorlix {
namespace {

constexpr int32_t kStatusLost = -1;

// A child's status arrives shortly after its streams close; wait this long.
constexpr std::chrono::milliseconds kExitGrace{10};

// Many programs close standard output just before they exit, to check that everything was written. A signal would still
// kill them then, so they get this time to exit.
constexpr std::chrono::milliseconds kTerminationGrace{100};

// Returns the status of a child that has ended, and absent while it runs. The system then forgets the child.
std::optional<int32_t> collectStatus(pid_t child) {
  int status = 0;
  pid_t waited = -1;
  do waited = waitpid(child, &status, WNOHANG);
  while (waited < 0 && errno == EINTR);
  if (waited == 0) return std::nullopt;
  if (waited < 0) return kStatusLost;
  return WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
}

// The children that were still running when their handles were destroyed.
class Abandoned {
 public:
  static Abandoned& list() {
    static auto* const instance = new Abandoned;  // never destroyed: handles may outlive static objects
    return *instance;
  }

  void add(pid_t child) {
    const std::lock_guard guard(lock_);
    children_.push_back(child);
  }

  void collect() {
    const std::lock_guard guard(lock_);
    std::erase_if(children_, [](pid_t child) { return collectStatus(child).has_value(); });
  }

 private:
  std::mutex lock_;
  std::vector<pid_t> children_;
};

class PosixChild final : public Child {
 public:
  PosixChild(ChildOutputs outputs, ChildInput input) {
    Pipe output = makePipe();
    output_ = std::make_shared<PipeOutput>(std::move(output.readEnd));
    outputEnd_ = std::move(output.writeEnd);
    error_ = output_;
    if (outputs != ChildOutputs::shared) {
      Pipe error = makePipe();
      error_ = std::make_shared<PipeOutput>(std::move(error.readEnd));
      errorEnd_ = std::move(error.writeEnd);
      // A child that waited for room in the pipe would wait forever, and so would the reader of its standard output.
      if (outputs == ChildOutputs::errorUnread) {
        if (fcntl(errorEnd_.get(), F_SETFL, O_NONBLOCK) != 0) {
          throw std::system_error(errno, std::generic_category(), "pipe");
        }
      }
    }
    if (input == ChildInput::pipe) input_ = makePipe();
  }

  ~PosixChild() override {
    if (child_ < 0) {
      // No child has written to these pipes, so closing them is not the end of a child's output.
      output_->cancelBackgroundRead();
      error_->cancelBackgroundRead();
    } else if (!endsShortly()) {
      Abandoned::list().add(child_);
    }
    Abandoned::list().collect();
  }

  std::shared_ptr<ChildOutput> standardOutput() override { return output_; }
  std::shared_ptr<ChildOutput> standardError() override { return error_; }

  void launch(const std::string& path, const std::vector<std::string>& arguments) override {
    const std::lock_guard guard(lock_);
    if (child_ >= 0) throw std::logic_error("a child is launched once");
    Abandoned::list().collect();
    ProgramStart start;
    if (input_.readEnd) {
      start.give(input_.readEnd.get());
    } else {
      start.useHostsInput();
    }
    start.give(outputEnd_.get());
    start.give(errorEnd_ ? errorEnd_.get() : outputEnd_.get());
    std::vector<std::string> all = arguments;
    all.insert(all.begin(), path);
    child_ = start.run(path, all, hostEnvironment());
    outputEnd_.reset();
    errorEnd_.reset();
    input_.readEnd.reset();
  }

  bool isRunning() override {
    const std::lock_guard guard(lock_);
    return child_ >= 0 && !hasEnded();
  }

  int32_t terminationStatus() override {
    const std::lock_guard guard(lock_);
    return child_ >= 0 && hasEnded() ? *status_ : 0;
  }

  void terminate() override {
    const std::lock_guard guard(lock_);
    // The system does not reuse the number of a child whose status was not collected.
    if (child_ < 0 || hasEnded()) return;
    if (output_->hasEnded() && endsWithin(kTerminationGrace)) return;
    kill(child_, SIGTERM);
  }

 private:
  bool hasEnded() {
    if (!status_) status_ = collectStatus(child_);
    return status_.has_value();
  }

  bool endsShortly() {
    if (hasEnded()) return true;
    return output_->hasEnded() && error_->hasEnded() && endsWithin(kExitGrace);
  }

  bool endsWithin(std::chrono::milliseconds time) {
    for (auto waited = std::chrono::milliseconds(0); waited < time; ++waited) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      if (hasEnded()) return true;
    }
    return false;
  }

  std::mutex lock_;
  std::shared_ptr<PipeOutput> output_;
  std::shared_ptr<PipeOutput> error_;
  Descriptor outputEnd_;  // the child's, until it is launched
  Descriptor errorEnd_;   // likewise; none if the outputs share a pipe
  Pipe input_;            // the read end until the child is launched; none if the host's input is inherited
  pid_t child_ = -1;
  std::optional<int32_t> status_;
};

}  // namespace

std::shared_ptr<Child> PosixChildProcess::create(ChildOutputs outputs, ChildInput input) {
  return std::make_shared<PosixChild>(outputs, input);
}

}  // namespace vorlix
