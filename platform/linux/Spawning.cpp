// SPDX-License-Identifier: Apache-2.0
#include "platform/posix/Spawning.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace vorlix {

int makePrivatePipe(int ends[2]) {
  return pipe2(ends, O_CLOEXEC) == 0 ? 0 : errno;
}

// This also closes descriptors that the host itself left open to programs.
int passDescriptorsUpTo(int last, posix_spawn_file_actions_t& actions, bool, short&) {
  return posix_spawn_file_actions_addclosefrom_np(&actions, last + 1);
}

char** hostEnvironment() {
  return environ;
}

}  // namespace vorlix
