// SPDX-License-Identifier: Apache-2.0
//
// Streams over functions, positions that are numbers, and renaming without replacing.
#pragma once

#include_next <stdio.h>

#ifdef __cplusplus
#include <stdint.h>

#define RENAME_EXCL 0x00000004

typedef int64_t standin_fpos_t;

extern "C" {
int renamex_np(const char* from, const char* to, unsigned int flags);
FILE* funopen(const void* cookie, int (*read)(void*, char*, int), int (*write)(void*, const char*, int),
              standin_fpos_t (*seek)(void*, standin_fpos_t, int), int (*close)(void*));
}
#define fpos_t standin_fpos_t
#endif
