// SPDX-License-Identifier: Apache-2.0
//
// Copies of files and folders with their metadata.
#pragma once

#include <stdint.h>

struct _copyfile_state;
typedef struct _copyfile_state* copyfile_state_t;
typedef uint32_t copyfile_flags_t;
typedef int (*copyfile_callback_t)(int, int, copyfile_state_t, const char*, const char*, void*);

extern "C" {
int copyfile(const char* from, const char* to, copyfile_state_t state, copyfile_flags_t flags);
copyfile_state_t copyfile_state_alloc(void);
int copyfile_state_free(copyfile_state_t state);
int copyfile_state_set(copyfile_state_t state, uint32_t flag, const void* value);
}

#define COPYFILE_STATE_STATUS_CB 6
#define COPYFILE_STATE_STATUS_CTX 7

#define COPYFILE_ACL (1 << 0)
#define COPYFILE_STAT (1 << 1)
#define COPYFILE_XATTR (1 << 2)
#define COPYFILE_DATA (1 << 3)
#define COPYFILE_SECURITY (COPYFILE_STAT | COPYFILE_ACL)
#define COPYFILE_METADATA (COPYFILE_SECURITY | COPYFILE_XATTR)
#define COPYFILE_ALL (COPYFILE_METADATA | COPYFILE_DATA)
#define COPYFILE_RECURSIVE (1 << 15)
#define COPYFILE_EXCL (1 << 17)
#define COPYFILE_NOFOLLOW_SRC (1 << 18)
#define COPYFILE_NOFOLLOW_DST (1 << 19)
#define COPYFILE_NOFOLLOW (COPYFILE_NOFOLLOW_SRC | COPYFILE_NOFOLLOW_DST)

#define COPYFILE_RECURSE_ERROR 0
#define COPYFILE_RECURSE_FILE 1
#define COPYFILE_RECURSE_DIR 2
#define COPYFILE_RECURSE_DIR_CLEANUP 3

#define COPYFILE_START 1
#define COPYFILE_FINISH 2
#define COPYFILE_ERR 3

#define COPYFILE_CONTINUE 0
#define COPYFILE_SKIP 1
#define COPYFILE_QUIT 2
