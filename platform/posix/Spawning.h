// SPDX-License-Identifier: Apache-2.0
//
// Where POSIX systems differ in starting a program.
#pragma once

#include <spawn.h>

namespace vorlix {

/// Makes a pipe whose ends a program does not inherit. @return 0 or the reason.
int makePrivatePipe(int ends[2]);

/// Lets the program find the descriptors 0 to 2 and no other. Standard output and standard error, and standard input
/// unless it is the host's own, must have been given to it by `actions` before.
/// @param flags  those of posix_spawnattr_setflags(), added to.
/// @return 0 or the reason.
int passStandardStreamsOnly(posix_spawn_file_actions_t& actions, bool hostsInput, short& flags);

/// The host's environment, as execve() takes it.
char** hostEnvironment();

}  // namespace vorlix
