// SPDX-License-Identifier: Apache-2.0
//
// Calls for starting a program in which POSIX systems differ. Each system's folder defines them; ProgramStart.h uses
// them.
#pragma once

#include <spawn.h>

namespace vorlix {

/// Makes a pipe whose ends a program does not inherit. @return 0 or the error number.
int makePrivatePipe(int ends[2]);

/// Makes the program inherit the descriptors 0 to `last` and no other. `actions` must have given it all of these
/// before, except for standard input if that is the host's own.
/// @param flags  those of posix_spawnattr_setflags(), to which this function adds.
/// @return 0 or the error number.
int passDescriptorsUpTo(int last, posix_spawn_file_actions_t& actions, bool hostsInput, short& flags);

/// The host's environment, as execve() takes it.
char** hostEnvironment();

}  // namespace vorlix
