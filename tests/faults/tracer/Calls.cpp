// SPDX-License-Identifier: Apache-2.0
#include "Calls.h"

#include <sys/syscall.h>

namespace {

// Newer architectures have only the variants with a folder's descriptor (openat for open, and so on).
constexpr Call kCalls[] = {
#ifdef SYS_open
    {.number = SYS_open, .name = "open", .path = 0, .flags = 1},
#endif
#ifdef SYS_creat
    {.number = SYS_creat, .name = "creat", .path = 0},
#endif
    {.number = SYS_openat, .name = "openat", .descriptor = 0, .path = 1, .flags = 2},
    {.number = SYS_close, .name = "close", .descriptor = 0},

    {.number = SYS_read, .name = "read", .descriptor = 0, .count = 2},
    {.number = SYS_pread64, .name = "pread64", .descriptor = 0, .count = 2, .offset = 3},
    {.number = SYS_readv, .name = "readv", .descriptor = 0, .buffers = 1},
    {.number = SYS_write, .name = "write", .descriptor = 0, .count = 2},
    {.number = SYS_pwrite64, .name = "pwrite64", .descriptor = 0, .count = 2, .offset = 3},
    {.number = SYS_writev, .name = "writev", .descriptor = 0, .buffers = 1},
    {.number = SYS_sendfile, .name = "sendfile", .descriptor = 0, .otherDescriptor = 1, .count = 3},
    {.number = SYS_copy_file_range, .name = "copy_file_range", .descriptor = 2, .otherDescriptor = 0, .count = 4},
    {.number = SYS_lseek, .name = "lseek", .descriptor = 0},
    {.number = SYS_mmap, .name = "mmap", .descriptor = 4, .isFile = true},

    {.number = SYS_fsync, .name = "fsync", .descriptor = 0},
    {.number = SYS_fdatasync, .name = "fdatasync", .descriptor = 0},
    {.number = SYS_syncfs, .name = "syncfs", .descriptor = 0},
    {.number = SYS_ftruncate, .name = "ftruncate", .descriptor = 0},
    {.number = SYS_truncate, .name = "truncate", .path = 0},
    {.number = SYS_fallocate, .name = "fallocate", .descriptor = 0},

#ifdef SYS_rename
    {.number = SYS_rename, .name = "rename", .path = 1, .otherPath = 0},
#endif
#ifdef SYS_renameat
    {.number = SYS_renameat, .name = "renameat", .descriptor = 2, .path = 3, .otherDescriptor = 0, .otherPath = 1},
#endif
    {.number = SYS_renameat2, .name = "renameat2", .descriptor = 2, .path = 3, .otherDescriptor = 0, .otherPath = 1},
#ifdef SYS_link
    {.number = SYS_link, .name = "link", .path = 1, .otherPath = 0},
#endif
    {.number = SYS_linkat, .name = "linkat", .descriptor = 2, .path = 3, .otherDescriptor = 0, .otherPath = 1},
#ifdef SYS_symlink
    {.number = SYS_symlink, .name = "symlink", .path = 1},
#endif
    {.number = SYS_symlinkat, .name = "symlinkat", .descriptor = 1, .path = 2},
#ifdef SYS_unlink
    {.number = SYS_unlink, .name = "unlink", .path = 0},
#endif
    {.number = SYS_unlinkat, .name = "unlinkat", .descriptor = 0, .path = 1},
#ifdef SYS_mkdir
    {.number = SYS_mkdir, .name = "mkdir", .path = 0},
#endif
    {.number = SYS_mkdirat, .name = "mkdirat", .descriptor = 0, .path = 1},
#ifdef SYS_rmdir
    {.number = SYS_rmdir, .name = "rmdir", .path = 0},
#endif
#ifdef SYS_chmod
    {.number = SYS_chmod, .name = "chmod", .path = 0},
#endif
    {.number = SYS_fchmod, .name = "fchmod", .descriptor = 0},
    {.number = SYS_fchmodat, .name = "fchmodat", .descriptor = 0, .path = 1},
    {.number = SYS_fchown, .name = "fchown", .descriptor = 0},
    {.number = SYS_fchownat, .name = "fchownat", .descriptor = 0, .path = 1},
    {.number = SYS_utimensat, .name = "utimensat", .descriptor = 0, .path = 1},

#ifdef SYS_stat
    {.number = SYS_stat, .name = "stat", .path = 0},
#endif
#ifdef SYS_lstat
    {.number = SYS_lstat, .name = "lstat", .path = 0},
#endif
    {.number = SYS_fstat, .name = "fstat", .descriptor = 0},
    {.number = SYS_newfstatat, .name = "newfstatat", .descriptor = 0, .path = 1},
    {.number = SYS_statx, .name = "statx", .descriptor = 0, .path = 1},
    {.number = SYS_statfs, .name = "statfs", .path = 0},
    {.number = SYS_fstatfs, .name = "fstatfs", .descriptor = 0},
#ifdef SYS_access
    {.number = SYS_access, .name = "access", .path = 0},
#endif
    {.number = SYS_faccessat, .name = "faccessat", .descriptor = 0, .path = 1},
#ifdef SYS_faccessat2
    {.number = SYS_faccessat2, .name = "faccessat2", .descriptor = 0, .path = 1},
#endif
#ifdef SYS_readlink
    {.number = SYS_readlink, .name = "readlink", .path = 0},
#endif
    {.number = SYS_readlinkat, .name = "readlinkat", .descriptor = 0, .path = 1},
    {.number = SYS_getdents64, .name = "getdents64", .descriptor = 0},
    {.number = SYS_flock, .name = "flock", .descriptor = 0},
    {.number = SYS_ioctl, .name = "ioctl", .descriptor = 0},

    {.number = SYS_mount, .name = "mount", .path = 1, .otherPath = 0},
    {.number = SYS_umount2, .name = "umount2", .path = 0},
    {.number = SYS_execve, .name = "execve", .path = 0},
    {.number = SYS_pipe2, .name = "pipe2"},
#ifdef SYS_pipe
    {.number = SYS_pipe, .name = "pipe"},
#endif
#ifdef SYS_fork
    {.number = SYS_fork, .name = "fork"},
#endif
#ifdef SYS_vfork
    {.number = SYS_vfork, .name = "vfork"},
#endif
    {.number = SYS_clone, .name = "clone"},
#ifdef SYS_clone3
    {.number = SYS_clone3, .name = "clone3"},
#endif
};

}  // namespace

std::span<const Call> countedCalls() {
  return kCalls;
}

const Call* findCall(uint64_t number) {
  for (const Call& call : kCalls) {
    if (static_cast<uint64_t>(call.number) == number) return &call;
  }
  return nullptr;
}
