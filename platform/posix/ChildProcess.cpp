// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
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
#include "Spawning.h"

namespace vorlix {
namespace {

// Numbers of the ends that are given to a child, so that none of its three streams is put in place over one of them
// where the host has closed a standard stream of its own.
constexpr int kAboveStandardStreams = STDERR_FILENO + 1;

constexpr int32_t kStatusLost = -1;

// Between a child's closing its streams and the system's having its status there is a moment; so long is waited for it.
constexpr std::chrono::milliseconds kExitGrace{10};

// Many programs close standard output as the last thing that they do, to see whether all of it could be written. Until
// they have exited after that, a signal would still end them; so long they are left alone.
constexpr std::chrono::milliseconds kTerminationGrace{100};

void require(int reason, const std::string& what) {
  if (reason != 0) throw std::system_error(reason, std::generic_category(), what);
}

struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;
};

Descriptor raised(int number) {
  const Descriptor low(number);
  Descriptor high(fcntl(number, F_DUPFD_CLOEXEC, kAboveStandardStreams));
  require(high ? 0 : errno, "pipe");
  return high;
}

Pipe makePipe() {
  int ends[2];
  require(makePrivatePipe(ends), "pipe");
  Descriptor writeEnd(ends[1]);
  Pipe pipe;
  pipe.readEnd = raised(ends[0]);
  pipe.writeEnd = raised(writeEnd.release());
  return pipe;
}

// The status of an ended child; empty while it runs. The system then forgets the child.
std::optional<int32_t> collectStatus(pid_t child) {
  int status = 0;
  pid_t waited = -1;
  do waited = waitpid(child, &status, WNOHANG);
  while (waited < 0 && errno == EINTR);
  if (waited == 0) return std::nullopt;
  if (waited < 0) return kStatusLost;
  return WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
}

// The children that ran when their handles went.
class Abandoned {
 public:
  static Abandoned& list() {
    static auto* const instance = new Abandoned;  // handles may go after the static objects have
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

// What a program starts with.
class SpawnSettings {
 public:
  SpawnSettings() {
    require(posix_spawn_file_actions_init(&actions_), "launch");
    const int reason = posix_spawnattr_init(&attributes_);
    if (reason != 0) posix_spawn_file_actions_destroy(&actions_);
    require(reason, "launch");
  }
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  /// @param input  -1 for the host's own.
  void setStreams(int input, int output, int error) {
    if (input >= 0) require(posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO), "launch");
    require(posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO), "launch");
    require(posix_spawn_file_actions_adddup2(&actions_, error, STDERR_FILENO), "launch");
    require(passStandardStreamsOnly(actions_, input < 0, flags_), "launch");
  }

  void resetSignals() {
    sigset_t none;
    sigemptyset(&none);
    sigset_t all;
    sigfillset(&all);
    sigdelset(&all, SIGKILL);
    sigdelset(&all, SIGSTOP);
    require(posix_spawnattr_setsigmask(&attributes_, &none), "launch");
    require(posix_spawnattr_setsigdefault(&attributes_, &all), "launch");
    flags_ = static_cast<short>(flags_ | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }

  pid_t spawn(const std::string& path, char* const* arguments) {
    require(posix_spawnattr_setflags(&attributes_, flags_), "launch");
    pid_t child = -1;
    require(posix_spawn(&child, path.c_str(), &actions_, &attributes_, arguments, hostEnvironment()), path);
    return child;
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  short flags_ = 0;
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
      // A child that waited until there is room would wait for ever, and with it whoever reads its standard output.
      if (outputs == ChildOutputs::errorUnread) {
        require(fcntl(errorEnd_.get(), F_SETFL, O_NONBLOCK) == 0 ? 0 : errno, "pipe");
      }
    }
    if (input == ChildInput::pipe) input_ = makePipe();
  }

  ~PosixChild() override {
    if (child_ < 0) {
      // Nobody has written to these pipes; that they are closed is no end of a child's output.
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
    std::vector<std::string> all = arguments;
    all.insert(all.begin(), path);
    std::vector<char*> pointers;
    for (std::string& argument : all) {
      // A text with a zero byte would reach the program cut short.
      if (argument.find('\0') != std::string::npos) require(EINVAL, path);
      pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);

    SpawnSettings settings;
    settings.setStreams(input_.readEnd.get(), outputEnd_.get(), errorEnd_ ? errorEnd_.get() : outputEnd_.get());
    settings.resetSignals();
    child_ = settings.spawn(path, pointers.data());
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
    // The number of a child whose status has not been collected is not given to another process.
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
