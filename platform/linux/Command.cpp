// SPDX-License-Identifier: Apache-2.0
#include "Command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include <Vorlix/platform/Descriptor.h>

namespace vorlix {
namespace {

constexpr size_t kMostErrors = 4096;
constexpr const char* kSystemPath = "/usr/sbin:/usr/bin:/sbin:/bin:/usr/local/sbin:/usr/local/bin";
// Numbers that descriptors must have so that none is overwritten while the program's own are put in place.
constexpr int kAboveTheProgramsOwn = kSharedDescriptor + 1;

struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;
};

Descriptor raised(int descriptor) {
  return Descriptor(fcntl(descriptor, F_DUPFD_CLOEXEC, kAboveTheProgramsOwn));
}

bool makePipe(Pipe& made) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  made.readEnd = Descriptor(ends[0]);
  const Descriptor low(ends[1]);
  made.writeEnd = raised(low.get());
  return static_cast<bool>(made.writeEnd);
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> environmentOf(const Command& command) {
  std::vector<std::string> environment = command.environment;
  environment.push_back("PATH=" + searchPath());
  if (const char* zone = std::getenv("TZ")) environment.push_back(std::string("TZ=") + zone);
  return environment;
}

// The file of a program; empty where there is none. Not by posix_spawnp(), which takes PATH from this process.
std::string fileOf(const std::string& program) {
  if (program.find('/') != std::string::npos) return program;
  std::istringstream folders(searchPath());
  for (std::string folder; std::getline(folders, folder, ':');) {
    std::string file = folder + "/" + program;
    struct stat status = {};
    const bool isProgram = !folder.empty() && stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    if (isProgram && access(file.c_str(), X_OK) == 0) return file;
  }
  return "";
}

// What the program starts with: its descriptors and none of the host's, no signal blocked, the usual answer to each.
class SpawnSettings {
 public:
  SpawnSettings(int output, int errors, int shared) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions_, output, 1);
    posix_spawn_file_actions_adddup2(&actions_, errors, 2);
    if (shared >= 0) posix_spawn_file_actions_adddup2(&actions_, shared, kSharedDescriptor);
    posix_spawn_file_actions_addclosefrom_np(&actions_, shared >= 0 ? kSharedDescriptor + 1 : kSharedDescriptor);
    sigset_t none;
    sigset_t usual;
    sigemptyset(&none);
    sigemptyset(&usual);
    for (const int signal : {SIGPIPE, SIGCHLD, SIGINT, SIGQUIT, SIGTERM, SIGHUP}) sigaddset(&usual, signal);
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setsigdefault(&attributes_, &usual);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  const posix_spawn_file_actions_t* actions() const { return &actions_; }
  const posix_spawnattr_t* attributes() const { return &attributes_; }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

// Reads both pipes until the program has closed them, so that it never waits for a full one.
void drain(Pipe& output, Pipe& errors, const Command& command, CommandResult& result) {
  std::array<pollfd, 2> polled = {
      {{output.readEnd.get(), POLLIN, 0}, {errors.readEnd.get(), POLLIN, 0}},
  };
  std::vector<char> buffer(64 * 1024);
  while (polled[0].fd >= 0 || polled[1].fd >= 0) {
    if (poll(polled.data(), polled.size(), -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    for (size_t i = 0; i < polled.size(); ++i) {
      if (polled[i].fd < 0 || polled[i].revents == 0) continue;
      const ssize_t got = read(polled[i].fd, buffer.data(), buffer.size());
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        polled[i].fd = -1;
      } else if (i == 0) {
        if (command.output) command.output(buffer.data(), static_cast<size_t>(got));
      } else {
        result.errors.append(buffer.data(), std::min(static_cast<size_t>(got), kMostErrors - result.errors.size()));
      }
    }
  }
}

}  // namespace

std::string searchPath() {
  const char* const path = geteuid() == 0 ? nullptr : std::getenv("PATH");
  return path == nullptr ? kSystemPath : path;
}

CommandResult runCommand(const Command& command) {
  CommandResult result;
  const std::string file = fileOf(command.arguments.front());
  if (file.empty()) {
    result.launchError = ENOENT;
    return result;
  }
  Pipe output;
  Pipe errors;
  Descriptor shared;
  if (!makePipe(output) || !makePipe(errors)) {
    result.launchError = errno;
    return result;
  }
  if (command.shared >= 0) {
    shared = raised(command.shared);
    if (!shared) {
      result.launchError = errno;
      return result;
    }
  }
  std::vector<std::string> arguments = command.arguments;
  std::vector<std::string> environment = environmentOf(command);
  pid_t child = -1;
  {
    const SpawnSettings settings(output.writeEnd.get(), errors.writeEnd.get(), shared.get());
    result.launchError = posix_spawn(&child, file.c_str(), settings.actions(), settings.attributes(),
                                     pointersTo(arguments).data(), pointersTo(environment).data());
  }
  if (result.launchError != 0) return result;
  const rlimit processorTime = {command.processorSeconds, command.processorSeconds + 1};
  static_cast<void>(prlimit(child, RLIMIT_CPU, &processorTime, nullptr));
  output.writeEnd.reset();
  errors.writeEnd.reset();
  drain(output, errors, command, result);
  int status = 0;
  pid_t waited = -1;
  do waited = waitpid(child, &status, 0);
  while (waited < 0 && errno == EINTR);
  if (waited == child && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  result.errors.erase(result.errors.find_last_not_of("\r\n") + 1);
  return result;
}

}  // namespace vorlix
