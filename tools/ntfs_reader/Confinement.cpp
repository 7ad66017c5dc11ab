// SPDX-License-Identifier: Apache-2.0
#include "Confinement.h"

#include <grp.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Failure.h"
#include "tools/ResourceLimits.h"

namespace vorlix::ntfs {
namespace {

constexpr bool kSanitized = VORLIX_SANITIZED != 0;
constexpr rlim_t kProcessorSeconds = 30;
constexpr rlim_t kAddressSpace = rlim_t{1} << 30;
constexpr uid_t kNobody = 65534;

#if defined(__x86_64__)
constexpr uint32_t kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
#else
constexpr uint32_t kArchitecture = 0;  // the calls are not limited
#endif

// Those of reading, answering, memory, and of a library that ends the process.
constexpr long kCalls[] = {
    SYS_read,         SYS_write,          SYS_pread64,
    SYS_lseek,        SYS_mmap,           SYS_munmap,
    SYS_mremap,       SYS_madvise,        SYS_brk,
    SYS_futex,        SYS_exit,           SYS_exit_group,
    SYS_getpid,       SYS_gettid,         SYS_tgkill,
    SYS_rt_sigaction, SYS_rt_sigprocmask, SYS_rt_sigreturn,
    SYS_getrandom,    SYS_clock_gettime,  SYS_restart_syscall,
};

void dropPrivileges() {
  if (geteuid() != 0) return;
  if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) {
    throw Failure("the rights of the super-user cannot be given up");
  }
}

// A kernel without filters leaves the other limits.
void limitCalls() {
  if (kArchitecture == 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return;
  std::vector<sock_filter> filter = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
  };
  for (const long call : kCalls) {
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(call), 0, 1));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS));
  const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
  static_cast<void>(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0));
}

}  // namespace

void confine() {
  limitResource(RLIMIT_CORE, 0);
  limitResource(RLIMIT_CPU, kProcessorSeconds, 1);
  std::signal(SIGPIPE, SIG_IGN);
  dropPrivileges();
  if constexpr (kSanitized) return;
  limitResource(RLIMIT_AS, kAddressSpace);
  limitCalls();
}

}  // namespace vorlix::ntfs
