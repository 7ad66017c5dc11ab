// SPDX-License-Identifier: Apache-2.0
#include "Confinement.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <system_error>

#include "Failure.h"
#include "tools/ResourceLimits.h"

namespace vorlix::registry {
namespace {

// AddressSanitizer reserves terabytes of address space, and its reports must stay readable. A build with sanitizers
// therefore neither limits the address space nor discards the output.
constexpr bool kSanitized = VORLIX_SANITIZED != 0;
constexpr rlim_t kProcessorSeconds = 10;

// The statuses are unlike those with which libraries and sanitizers end a process.
enum ChildStatus : int { kDone = 100, kFailed = 101, kUnsent = 102 };

void confine(uint64_t addressSpace) {
  limitResource(RLIMIT_CORE, 0);
  limitResource(RLIMIT_CPU, kProcessorSeconds, 1);
  // The host may have ignored or blocked SIGXCPU, and the child inherits that.
  std::signal(SIGXCPU, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  unsetenv("HIVEX_DEBUG");
  if constexpr (!kSanitized) {
    limitResource(RLIMIT_AS, addressSpace);
    // Users must not see what a library prints before it aborts.
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
  }
}

bool send(int pipe, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(pipe, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

[[noreturn]] void work(int pipe, uint64_t addressSpace, const std::function<std::string()>& job) {
  confine(addressSpace);
  ChildStatus status = kFailed;
  std::string text;
  try {
    text = job();
    status = kDone;
  } catch (const std::bad_alloc&) {
    text = "not enough memory to read the hive";
  } catch (const std::exception& error) {
    text = error.what();
  }
  // _exit() because the buffers and objects belong to the parent process.
  _exit(send(pipe, text) ? status : kUnsent);
}

std::string everythingFrom(int pipe) {
  std::string text;
  std::array<char, 65536> buffer = {};
  for (;;) {
    const ssize_t length = read(pipe, buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return text;
    text.append(buffer.data(), static_cast<size_t>(length));
  }
}

int statusOf(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "waitpid");
  }
  return status;
}

}  // namespace

std::string runConfined(uint64_t addressSpace, const std::function<std::string()>& job) {
  // A host that ignores SIGCHLD passes that on to this process, and waitpid() would then return no status.
  std::signal(SIGCHLD, SIG_DFL);
  std::array<int, 2> ends = {};
  if (pipe(ends.data()) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  const pid_t child = fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (child == 0) {
    close(ends[0]);
    work(ends[1], addressSpace, job);
  }
  close(ends[1]);
  std::string text = everythingFrom(ends[0]);
  close(ends[0]);

  const int status = statusOf(child);
  if (WIFSIGNALED(status)) {
    const int signal = WTERMSIG(status);
    if (signal == SIGXCPU) throw Failure("damaged hive: reading it takes too long");
    throw Failure(std::string("damaged hive: its reader crashed: ") + strsignal(signal));
  }
  switch (WEXITSTATUS(status)) {
    case kDone:
      return text;
    case kFailed:
      throw Failure(text);
    default:
      throw Failure("damaged hive: its reader ended with status " + std::to_string(WEXITSTATUS(status)));
  }
}

}  // namespace vorlix::registry
