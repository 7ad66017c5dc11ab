// SPDX-License-Identifier: Apache-2.0
#include "Command.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <system_error>

#include <Vorlix/platform/Descriptor.h>
#include "platform/posix/ProgramStart.h"

namespace vorlix {
namespace {

constexpr size_t kMostErrors = 4096;
constexpr const char* kSystemPath = "/usr/sbin:/usr/bin:/sbin:/bin:/usr/local/sbin:/usr/local/bin";

std::vector<std::string> environmentOf(const Command& command) {
  std::vector<std::string> environment = command.environment;
  environment.push_back("PATH=" + searchPath());
  if (const char* zone = std::getenv("TZ")) environment.push_back(std::string("TZ=") + zone);
  return environment;
}

// Returns the file of a program, or empty. posix_spawnp() would use the PATH of this process.
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

pid_t start(const Command& command, const std::string& file, const Pipe& output, const Pipe& errors) {
  std::vector<std::string> environment = environmentOf(command);
  ProgramStart start;
  start.giveNoInput();
  start.give(output.writeEnd.get());
  start.give(errors.writeEnd.get());
  Descriptor shared;
  if (command.shared >= 0) {
    shared = giveable(command.shared);
    start.give(shared.get());
  }
  return start.run(file, command.arguments, pointersTo(environment).data());
}

// Reads both pipes until the program has closed them, so that it never waits for a full pipe.
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
  pid_t child = -1;
  try {
    output = makePipe();
    errors = makePipe();
    child = start(command, file, output, errors);
  } catch (const std::system_error& failure) {
    result.launchError = failure.code().value();
    return result;
  }
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
