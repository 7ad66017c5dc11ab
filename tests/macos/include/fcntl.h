// SPDX-License-Identifier: Apache-2.0
//
// What open() and fcntl() take on macOS besides.
#pragma once

#include_next <fcntl.h>

#define O_SHLOCK 0x00000010
#define O_EXLOCK 0x00000020

#define F_NOCACHE 48
#define F_FULLFSYNC 51
