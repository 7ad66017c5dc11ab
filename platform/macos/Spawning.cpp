// SPDX-License-Identifier: Apache-2.0
#include "platform/posix/Spawning.h"

#include <crt_externs.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace vorlix {

// This system has no pipe2(). A program that another thread starts between the two calls inherits the ends, unless it
// is started with passDescriptorsUpTo(), as all programs of this library are.
int makePrivatePipe(int ends[2]) {
  if (pipe(ends) != 0) return errno;
  if (fcntl(ends[0], F_SETFD, FD_CLOEXEC) == 0 && fcntl(ends[1], F_SETFD, FD_CLOEXEC) == 0) return 0;
  const int reason = errno;
  close(ends[0]);
  close(ends[1]);
  return reason;
}

// The descriptors that `actions` gives are open in the program, and no other.
int passDescriptorsUpTo(int, posix_spawn_file_actions_t& actions, bool hostsInput, short& flags) {
  flags = static_cast<short>(flags | POSIX_SPAWN_CLOEXEC_DEFAULT);
  // Only an open descriptor can be inherited.
  if (!hostsInput || fcntl(STDIN_FILENO, F_GETFD) < 0) return 0;
  return posix_spawn_file_actions_addinherit_np(&actions, STDIN_FILENO);
}

char** hostEnvironment() {
  return *_NSGetEnviron();
}

}  // namespace vorlix
