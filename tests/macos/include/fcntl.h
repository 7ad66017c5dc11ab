// SPDX-License-Identifier: Apache-2.0
//
// Flags and requests that only macOS has.
#pragma once

#include_next <fcntl.h>

#define O_SHLOCK 0x00000010
#define O_EXLOCK 0x00000020

#define F_NOCACHE 48
#define F_FULLFSYNC 51
