// SPDX-License-Identifier: Apache-2.0
//
// Mounted file systems as macOS lists them.
#pragma once

#include_next <sys/mount.h>

#include <stdint.h>
#include <sys/types.h>

#define MNT_LOCAL 0x00001000
#define MNT_WAIT 1
#define MNT_NOWAIT 2

struct standin_statfs {
  uint32_t f_bsize;
  int32_t f_iosize;
  uint64_t f_blocks;
  uint64_t f_bfree;
  uint64_t f_bavail;
  uint64_t f_files;
  uint64_t f_ffree;
  int32_t f_fsid[2];
  uid_t f_owner;
  uint32_t f_type;
  uint32_t f_flags;
  uint32_t f_fssubtype;
  char f_fstypename[16];
  char f_mntonname[1024];
  char f_mntfromname[1024];
  uint32_t f_flags_ext;
  uint32_t f_reserved[7];
};

extern "C" {
int getfsstat(struct standin_statfs* list, int size, int mode);
int standin_statfs(const char* path, struct standin_statfs* status);
}
#define statfs standin_statfs
