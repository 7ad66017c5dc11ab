// SPDX-License-Identifier: Apache-2.0
//
// Programs that inherit only the descriptors they are given.
#pragma once

#include_next <spawn.h>

#define POSIX_SPAWN_CLOEXEC_DEFAULT 0x4000

extern "C" int posix_spawn_file_actions_addinherit_np(posix_spawn_file_actions_t* actions, int descriptor);
