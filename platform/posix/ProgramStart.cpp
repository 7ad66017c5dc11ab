// SPDX-License-Identifier: Apache-2.0
#include "ProgramStart.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "Spawning.h"

namespace vorlix {
namespace {

void require(int reason, const std::string& what) {
  if (reason != 0) throw std::system_error(reason, std::generic_category(), what);
}

}  // namespace

Pipe makePipe() {
  int ends[2];
  require(makePrivatePipe(ends), "pipe");
  const Descriptor readEnd(ends[0]);
  const Descriptor writeEnd(ends[1]);
  return {giveable(readEnd.get()), giveable(writeEnd.get())};
}

Descriptor giveable(int descriptor) {
  Descriptor high(fcntl(descriptor, F_DUPFD_CLOEXEC, kLargestGivenDescriptor + 1));
  require(high ? 0 : errno, "pipe");
  return high;
}

ProgramStart::ProgramStart() {
  require(posix_spawn_file_actions_init(&actions_), "launch");
  const int reason = posix_spawnattr_init(&attributes_);
  if (reason != 0) posix_spawn_file_actions_destroy(&actions_);
  require(reason, "launch");
}

ProgramStart::~ProgramStart() {
  posix_spawn_file_actions_destroy(&actions_);
  posix_spawnattr_destroy(&attributes_);
}

void ProgramStart::give(int descriptor) {
  require(posix_spawn_file_actions_adddup2(&actions_, descriptor, next_++), "launch");
}

void ProgramStart::giveNoInput() {
  require(posix_spawn_file_actions_addopen(&actions_, next_++, "/dev/null", O_RDONLY, 0), "launch");
}

void ProgramStart::useHostsInput() {
  hasHostsInput_ = true;
  ++next_;
}

pid_t ProgramStart::run(const std::string& path, const std::vector<std::string>& arguments, char* const* environment) {
  std::vector<std::string> all = arguments;
  // A string with a zero byte would reach the program truncated.
  const auto hasZero = [](const std::string& argument) { return argument.find('\0') != std::string::npos; };
  if (std::any_of(all.begin(), all.end(), hasZero)) require(EINVAL, path);

  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  require(passDescriptorsUpTo(next_ - 1, actions_, hasHostsInput_, flags), "launch");
  sigset_t none;
  sigset_t every;
  sigemptyset(&none);
  sigfillset(&every);
  sigdelset(&every, SIGKILL);
  sigdelset(&every, SIGSTOP);
  require(posix_spawnattr_setsigmask(&attributes_, &none), "launch");
  require(posix_spawnattr_setsigdefault(&attributes_, &every), "launch");
  require(posix_spawnattr_setflags(&attributes_, flags), "launch");
  pid_t child = -1;
  require(posix_spawn(&child, path.c_str(), &actions_, &attributes_, pointersTo(all).data(), environment), path);
  return child;
}

std::vector<char*> pointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& string : strings) pointers.push_back(string.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace vorlix
