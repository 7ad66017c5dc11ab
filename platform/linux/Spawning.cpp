// SPDX-License-Identifier: Apache-2.0
#include "platform/posix/Spawning.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace vorlix {

int makePrivatePipe(int ends[2]) {
  return pipe2(ends, O_CLOEXEC) == 0 ? 0 : errno;
}

// Descriptors that the host itself left open to programs are closed, too.
int passStandardStreamsOnly(posix_spawn_file_actions_t& actions, bool, short&) {
  return posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
}

char** hostEnvironment() {
  return environ;
}

}  // namespace vorlix
