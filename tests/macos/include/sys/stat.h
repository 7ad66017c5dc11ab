// SPDX-License-Identifier: Apache-2.0
//
// What differs in <sys/stat.h> of macOS: the names of the times, a time of birth, the names of nodes.
#pragma once

#include_next <sys/stat.h>

#ifdef __cplusplus
#include <sys/types.h>
#include <time.h>

#undef st_atime
#undef st_mtime
#undef st_ctime

struct standin_stat {
  dev_t st_dev;
  mode_t st_mode;
  nlink_t st_nlink;
  ino_t st_ino;
  uid_t st_uid;
  gid_t st_gid;
  dev_t st_rdev;
  struct timespec st_atimespec;
  struct timespec st_mtimespec;
  struct timespec st_ctimespec;
  struct timespec st_birthtimespec;
  off_t st_size;
  blkcnt_t st_blocks;
  blksize_t st_blksize;
};
#define st_atime st_atimespec.tv_sec
#define st_mtime st_mtimespec.tv_sec
#define st_ctime st_ctimespec.tv_sec

extern "C" {
int standin_stat(const char* path, struct standin_stat* status);
int standin_lstat(const char* path, struct standin_stat* status);
int standin_fstat(int descriptor, struct standin_stat* status);
// The system declares it in <stdlib.h>; this one's <cstdlib> does not take that from another folder.
char* devname(dev_t device, mode_t type);
}
#define stat standin_stat
#define lstat standin_lstat
#define fstat standin_fstat
#endif
