// SPDX-License-Identifier: Apache-2.0
#include "Tracee.h"

#include <elf.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/limits.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

#include "Calls.h"

namespace {

#if defined(__x86_64__)

using Registers = user_regs_struct;
constexpr uint32_t kArchitecture = AUDIT_ARCH_X86_64;
constexpr uint8_t kBreakpoint[] = {0xCC};
constexpr uint64_t kPastBreakpoint = 1;  // offset of the program counter after the breakpoint instruction was executed

unsigned long long& programCounter(Registers& registers) {
  return registers.rip;
}

unsigned long long& resultOf(Registers& registers) {
  return registers.rax;
}

unsigned long long& argumentOf(Registers& registers, int argument) {
  unsigned long long* const arguments[] = {&registers.rdi, &registers.rsi, &registers.rdx,
                                           &registers.r10, &registers.r8,  &registers.r9};
  return *arguments[argument];
}

#elif defined(__aarch64__)

using Registers = user_regs_struct;
constexpr uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
constexpr uint8_t kBreakpoint[] = {0x00, 0x00, 0x20, 0xD4};
constexpr uint64_t kPastBreakpoint = 0;

unsigned long long& programCounter(Registers& registers) {
  return registers.pc;
}

unsigned long long& resultOf(Registers& registers) {
  return registers.regs[0];
}

unsigned long long& argumentOf(Registers& registers, int argument) {
  return registers.regs[argument];
}

#else
#error "the tracer knows the registers of x86-64 and of 64-bit ARM alone"
#endif

bool getRegisters(pid_t task, Registers& registers) {
  iovec place = {&registers, sizeof registers};
  return ptrace(PTRACE_GETREGSET, task, NT_PRSTATUS, &place) == 0;
}

bool setRegisters(pid_t task, Registers& registers) {
  iovec place = {&registers, sizeof registers};
  return ptrace(PTRACE_SETREGSET, task, NT_PRSTATUS, &place) == 0;
}

uint64_t entryOf(pid_t task) {
  std::ifstream file("/proc/" + std::to_string(task) + "/auxv", std::ios::binary);
  Elf64_auxv_t item = {};
  while (file.read(reinterpret_cast<char*>(&item), sizeof item)) {
    if (item.a_type == AT_ENTRY) return item.a_un.a_val;
  }
  return 0;
}

}  // namespace

bool stopAtCountedCalls() {
  const auto load = [](size_t offset) {
    return sock_filter(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<__u32>(offset)));
  };
  const sock_filter allow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  const sock_filter stop = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE);
  std::vector<sock_filter> program = {load(offsetof(seccomp_data, arch)),
                                      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0), allow,
                                      load(offsetof(seccomp_data, nr))};
  for (const Call& call : countedCalls()) {
    const auto number = static_cast<__u32>(call.number);
    if (call.isFile) {  // not with a negative descriptor, whose low half is the first on both architectures
      const size_t descriptor = offsetof(seccomp_data, args) + sizeof(__u64) * static_cast<size_t>(call.descriptor);
      program.insert(program.end(), {BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 4), load(descriptor),
                                     BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x80000000, 0, 1), allow, stop});
    } else {
      program.insert(program.end(), {BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1), stop});
    }
  }
  program.push_back(allow);
  const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
  // A filter must not give a set-user-ID program to an ordinary user, and tracing takes its privileges anyway.
  return (geteuid() == 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0) &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

std::optional<CallStop> lookAtCall(pid_t task) {
  __ptrace_syscall_info info = {};
  if (ptrace(PTRACE_GET_SYSCALL_INFO, task, sizeof info, &info) <= 0) return std::nullopt;
  if (info.arch != kArchitecture) return std::nullopt;
  CallStop stop;
  if (info.op == PTRACE_SYSCALL_INFO_SECCOMP) {
    stop.isEntry = true;
    stop.number = info.seccomp.nr;
    std::copy_n(info.seccomp.args, stop.arguments.size(), stop.arguments.begin());
  } else if (info.op == PTRACE_SYSCALL_INFO_EXIT) {
    stop.isExit = true;
    stop.result = info.exit.rval;
  }
  return stop;
}

bool skipCall(pid_t task) {
#if defined(__x86_64__)
  Registers registers = {};
  if (!getRegisters(task, registers)) return false;
  registers.orig_rax = static_cast<unsigned long long>(-1);
  return setRegisters(task, registers);
#else
  int number = -1;
  iovec place = {&number, sizeof number};
  return ptrace(PTRACE_SETREGSET, task, NT_ARM_SYSTEM_CALL, &place) == 0;
#endif
}

bool setArgument(pid_t task, int argument, uint64_t value) {
  Registers registers = {};
  if (!getRegisters(task, registers)) return false;
  argumentOf(registers, argument) = value;
  return setRegisters(task, registers);
}

bool setResult(pid_t task, int64_t value) {
  Registers registers = {};
  if (!getRegisters(task, registers)) return false;
  resultOf(registers) = static_cast<unsigned long long>(value);
  return setRegisters(task, registers);
}

bool readMemory(pid_t task, uint64_t address, void* bytes, size_t count) {
  const iovec here = {bytes, count};
  const iovec there = {reinterpret_cast<void*>(address), count};  // NOLINT: an address of the other process
  return process_vm_readv(task, &here, 1, &there, 1, 0) == static_cast<ssize_t>(count);
}

bool writeMemory(pid_t task, uint64_t address, const void* bytes, size_t count) {
  const iovec here = {const_cast<void*>(bytes), count};
  const iovec there = {reinterpret_cast<void*>(address), count};  // NOLINT: an address of the other process
  return process_vm_writev(task, &here, 1, &there, 1, 0) == static_cast<ssize_t>(count);
}

std::string readText(pid_t task, uint64_t address) {
  constexpr size_t kStep = 256;  // divides the page size, so that no read crosses into an unmapped page
  std::string text;
  while (text.size() < PATH_MAX) {
    char bytes[kStep];
    const size_t count = kStep - address % kStep;
    if (!readMemory(task, address, bytes, count)) break;
    const size_t length = strnlen(bytes, count);
    text.append(bytes, length);
    if (length < count) break;
    address += count;
  }
  return text;
}

std::string linkOf(pid_t task, const std::string& name) {
  char target[PATH_MAX];
  const ssize_t length = readlink(("/proc/" + std::to_string(task) + "/" + name).c_str(), target, sizeof target);
  return length < 0 ? "" : std::string(target, static_cast<size_t>(length));
}

int64_t positionOf(pid_t task, int descriptor) {
  std::ifstream file("/proc/" + std::to_string(task) + "/fdinfo/" + std::to_string(descriptor));
  std::string word;
  int64_t position = -1;
  file >> word >> position;
  return word == "pos:" ? position : -1;
}

bool EntryBreakpoint::set(pid_t task) {
  address_ = entryOf(task);
  if (address_ == 0) return false;
  errno = 0;
  word_ = ptrace(PTRACE_PEEKTEXT, task, address_, nullptr);
  long word = word_;
  std::memcpy(&word, kBreakpoint, sizeof kBreakpoint);
  if (errno == 0 && ptrace(PTRACE_POKETEXT, task, address_, word) == 0) return true;
  address_ = 0;
  return false;
}

bool EntryBreakpoint::hit(pid_t task) {
  Registers registers = {};
  if (address_ == 0 || !getRegisters(task, registers)) return false;
  if (programCounter(registers) != address_ + kPastBreakpoint) return false;
  ptrace(PTRACE_POKETEXT, task, address_, word_);
  programCounter(registers) = address_;
  address_ = 0;
  return setRegisters(task, registers);
}
