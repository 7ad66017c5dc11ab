// SPDX-License-Identifier: Apache-2.0
#include "Tracer.h"

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <set>
#include <utility>

namespace {

constexpr int kCannotStart = 127;
constexpr int kCallStop = SIGTRAP | 0x80;  // the signal of stops at calls, due to PTRACE_O_TRACESYSGOOD

/// A traced process or thread.
struct Traced {
  size_t process = 0;
  bool isCounted = true;  // its calls count, because its program has begun
  uint64_t calls = 0;     // number of counted calls so far
  EntryBreakpoint entry;
  std::optional<size_t> open;  // index of the record of the current call
  bool isChosen = false;       // the current call is the one with the fault
  bool isShortened = false;
  uint64_t shortened = 0;  // address of the buffer length that the tracer changed
  uint64_t length = 0;     // its old value
};

class Tracer {
 public:
  explicit Tracer(const Task& task) : task_(task) {}

  Outcome run() {
    if (!start()) return std::move(outcome_);
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(task_.seconds);
    for (;;) {
      int status = 0;
      const pid_t id = waitpid(-1, &status, __WALL);
      if (id < 0 && errno != EINTR) break;  // no traced process is left
      if (!isEnding_ && std::chrono::steady_clock::now() > end) {
        outcome_.end = Outcome::End::hang;
        isHanging_ = true;
        killAll();
      }
      if (id > 0) handle(id, status);
    }
    return std::move(outcome_);
  }

 private:
  bool start() {
    int gate[2];
    if (pipe2(gate, O_CLOEXEC) != 0) return fail("pipe");
    command_ = fork();
    if (command_ < 0) return fail("fork");
    if (command_ == 0) runCommand(gate[0], gate[1]);
    close(gate[0]);
    constexpr long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE |
                              PTRACE_O_TRACEEXEC | PTRACE_O_TRACESECCOMP | PTRACE_O_EXITKILL;
    if (ptrace(PTRACE_SEIZE, command_, nullptr, kOptions) != 0) {
      const int reason = errno;
      kill(command_, SIGKILL);
      waitpid(command_, nullptr, 0);
      close(gate[1]);
      errno = reason;
      return fail("ptrace is not allowed");
    }
    traced_[command_] = Traced{.process = ++processes_, .isCounted = false, .entry = {}, .open = {}};
    wakeUpNowAndThen();
    const bool isGo = write(gate[1], "", 1) == 1;
    close(gate[1]);
    return isGo || fail("pipe");
  }

  bool fail(const char* what) {
    outcome_.reason = std::string(what) + ": " + std::strerror(errno);
    return false;
  }

  // Runs in the child: waits until it is traced, then starts the command.
  [[noreturn]] void runCommand(int gate, int otherEnd) const {
    close(otherEnd);
    char byte;
    if (read(gate, &byte, 1) != 1) _exit(kCannotStart);
    std::vector<char*> arguments;
    for (const std::string& argument : task_.command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    std::string failed = "fault_tracer: a filter of calls";
    if (stopAtCountedCalls()) {
      execvp(arguments[0], arguments.data());
      failed = task_.command[0];
    }
    const std::string message = failed + ": " + std::strerror(errno) + "\n";
    static_cast<void>(!write(STDERR_FILENO, message.data(), message.size()));
    _exit(kCannotStart);
  }

  // Interrupts waitpid() repeatedly, so that the time limit is noticed even if one signal arrives too early.
  static void wakeUpNowAndThen() {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often = {{0, 100000}, {0, 100000}};
    setitimer(ITIMER_REAL, &often, nullptr);
  }

  void killAll() {
    isEnding_ = true;
    for (const auto& [id, traced] : traced_) kill(id, SIGKILL);
  }

  void handle(pid_t id, int status) {
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      handleEnd(id, status);
      return;
    }
    if (!WIFSTOPPED(status)) return;
    if (traced_.count(id) == 0) seenEarly_.insert(id);
    Traced& traced = known(id);
    if (isEnding_) {
      kill(id, SIGKILL);
      return;
    }
    const int event = status >> 16;
    const int signal = WSTOPSIG(status);
    if (event == PTRACE_EVENT_STOP) {
      const bool isGroupStop = signal != SIGTRAP;
      if (isGroupStop) {
        ptrace(PTRACE_LISTEN, id, nullptr, nullptr);
      } else {
        resume(id, traced, 0);
      }
    } else if (event == PTRACE_EVENT_SECCOMP || signal == kCallStop) {
      handleCall(id, traced);
    } else if (event != 0) {
      if (event == PTRACE_EVENT_EXEC) {
        handleExec(id, traced);
      } else {
        handleStart(id);
      }
      resume(id, traced, 0);
    } else if (signal == SIGTRAP && !traced.isCounted && traced.entry.hit(id)) {
      traced.isCounted = true;
      resume(id, traced, 0);
    } else {
      resume(id, traced, signal);
    }
  }

  // The task stops at the next counted call, and before that at the exit of the one that it is in.
  static void resume(pid_t id, const Traced& traced, int signal) {
    ptrace(traced.open ? PTRACE_SYSCALL : PTRACE_CONT, id, nullptr, static_cast<long>(signal));
  }

  Traced& known(pid_t id) {
    const auto [place, isNew] = traced_.try_emplace(id);
    if (isNew) place->second.process = ++processes_;  // its program has begun: dynamic loaders start no processes
    return place->second;
  }

  // Those that a process starts are numbered in that order. One that was seen before this event has its number, and may
  // have ended already.
  void handleStart(pid_t parent) {
    unsigned long message = 0;
    if (ptrace(PTRACE_GETEVENTMSG, parent, nullptr, &message) != 0) return;
    const auto started = static_cast<pid_t>(message);
    if (seenEarly_.erase(started) == 0) known(started);
  }

  void handleEnd(pid_t id, int status) {
    traced_.erase(id);
    if (id != command_) {
      if (WIFSIGNALED(status) && !isEnding_) ++outcome_.childrenByCrash;
      return;
    }
    if (isHanging_) return;
    if (WIFEXITED(status)) {
      outcome_.end = Outcome::End::exited;
      outcome_.status = WEXITSTATUS(status);
    } else {
      outcome_.end = isEnding_ ? Outcome::End::killed : Outcome::End::signalled;
      outcome_.status = WTERMSIG(status);
    }
  }

  void handleExec(pid_t id, Traced& traced) {
    unsigned long former = 0;  // a thread that starts a program gets the identifier of its process
    ptrace(PTRACE_GETEVENTMSG, id, nullptr, &former);
    if (static_cast<pid_t>(former) != id) {
      const auto place = traced_.find(static_cast<pid_t>(former));
      if (place != traced_.end()) {
        traced.open = place->second.open;
        traced.isChosen = place->second.isChosen;
        traced_.erase(place);
      }
    }
    traced.isCounted = task_.fromStart || !traced.entry.set(id);
  }

  void handleCall(pid_t id, Traced& traced) {
    const std::optional<CallStop> stop = lookAtCall(id);
    if (stop && stop->isEntry) handleEntry(id, traced, *stop);
    if (stop && stop->isExit) handleExit(id, traced, *stop);
    if (!isEnding_) resume(id, traced, 0);
  }

  bool isWanted(const Call& call, const CallStop& stop) const {
    if (call.isFile && static_cast<int>(stop.arguments[static_cast<size_t>(call.descriptor)]) < 0) return false;
    const auto& names = task_.calls;
    return names.empty() || std::find(names.begin(), names.end(), call.name) != names.end();
  }

  void handleEntry(pid_t id, Traced& traced, const CallStop& stop) {
    traced.open.reset();
    traced.isChosen = false;
    const Call* const call = findCall(stop.number);
    if (call == nullptr || !traced.isCounted || !isWanted(*call, stop)) return;
    traced.open = outcome_.calls.size();
    outcome_.calls.push_back(describe(id, traced, *call, stop));
    ++traced.calls;
    const bool isAnyProcess = task_.process == 0;
    if (!isAnyProcess && task_.process != traced.process) return;
    if ((isAnyProcess ? outcome_.calls.size() : traced.calls) != task_.at) return;
    outcome_.chosen = outcome_.calls.size();
    traced.isChosen = true;
    switch (task_.fault) {
      case Fault::killBefore:
        outcome_.isHit = skipCall(id);
        killAll();
        break;
      case Fault::error:
        // Linux releases the descriptor even if close() fails, so the call is made.
        outcome_.isHit = std::strcmp(call->name, "close") == 0 || skipCall(id);
        break;
      case Fault::shortTransfer:
        outcome_.isHit = shorten(id, traced, *call, stop);
        break;
      case Fault::killAfter:
      case Fault::none:
        break;
    }
  }

  bool shorten(pid_t id, Traced& traced, const Call& call, const CallStop& stop) {
    if (call.count >= 0) {
      const uint64_t count = stop.arguments[static_cast<size_t>(call.count)];
      traced.isShortened = count >= 2 && setArgument(id, call.count, count / 2);
    } else if (call.buffers >= 0) {  // transfers half of the first buffer only
      const uint64_t address = stop.arguments[static_cast<size_t>(call.buffers)];
      iovec first = {};
      if (!readMemory(id, address, &first, sizeof first) || first.iov_len < 2) return false;
      traced.length = first.iov_len;
      traced.shortened = address + offsetof(iovec, iov_len);
      const uint64_t half = traced.length / 2;
      traced.isShortened =
          setArgument(id, call.buffers + 1, 1) && writeMemory(id, traced.shortened, &half, sizeof half);
    }
    return traced.isShortened;
  }

  void handleExit(pid_t id, Traced& traced, const CallStop& stop) {
    if (!traced.open) return;
    CallRecord& record = outcome_.calls[*traced.open];
    traced.open.reset();
    record.isDone = true;
    record.result = stop.result;
    if (!std::exchange(traced.isChosen, false)) return;
    if (task_.fault == Fault::killAfter) {
      outcome_.isHit = true;
      killAll();
    } else if (task_.fault == Fault::error) {
      record.result = -task_.error;
      outcome_.isHit = outcome_.isHit && setResult(id, record.result);
    } else if (std::exchange(traced.isShortened, false) && traced.shortened != 0) {
      writeMemory(id, std::exchange(traced.shortened, 0), &traced.length, sizeof traced.length);
    }
  }

  static std::string fileOf(pid_t id, const CallStop& stop, int descriptor, int path) {
    std::string folder;
    const int number = descriptor < 0 ? AT_FDCWD : static_cast<int>(stop.arguments[static_cast<size_t>(descriptor)]);
    if (path < 0) return descriptor < 0 ? "" : linkOf(id, "fd/" + std::to_string(number));
    const uint64_t address = stop.arguments[static_cast<size_t>(path)];
    const std::string name = address == 0 ? "" : readText(id, address);
    if (name.starts_with('/')) return name;
    folder = linkOf(id, number == AT_FDCWD ? "cwd" : "fd/" + std::to_string(number));
    return name.empty() ? folder : folder + "/" + name;
  }

  static CallRecord describe(pid_t id, const Traced& traced, const Call& call, const CallStop& stop) {
    CallRecord record;
    record.process = traced.process;
    record.call = &call;
    record.file = fileOf(id, stop, call.descriptor, call.path);
    if (call.otherDescriptor >= 0 || call.otherPath >= 0) {
      record.other = fileOf(id, stop, call.otherDescriptor, call.otherPath);
    }
    const auto argument = [&](int index) { return static_cast<int64_t>(stop.arguments[static_cast<size_t>(index)]); };
    if (call.flags >= 0) record.flags = argument(call.flags);
    if (call.count >= 0) record.count = argument(call.count);
    if (call.offset >= 0) {
      record.offset = argument(call.offset);
    } else if (call.count >= 0 || call.buffers >= 0) {
      record.offset = positionOf(id, static_cast<int>(argument(call.descriptor)));
    }
    return record;
  }

  const Task& task_;
  Outcome outcome_;
  pid_t command_ = -1;
  std::map<pid_t, Traced> traced_;
  std::set<pid_t> seenEarly_;  // before the event of their start
  size_t processes_ = 0;
  bool isEnding_ = false;
  bool isHanging_ = false;
};

}  // namespace

Outcome trace(const Task& task) {
  return Tracer(task).run();
}
