// SPDX-License-Identifier: Apache-2.0
//
// Functions that only the C library of macOS has.
#include <asl.h>
#include <crt_externs.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <map>
#include <mutex>
#include <set>

#include "System.h"
#include "platform/simulated/SimulatedState.h"

extern "C" {
int __real_posix_spawnattr_setflags(posix_spawnattr_t* attributes, short flags);
int __real_posix_spawn(pid_t* child, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const arguments[], char* const environment[]);
int __real_posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int from, int to);
}

namespace vorlix::standin {
namespace {

struct Stream {
  void* cookie;
  int (*read)(void*, char*, int);
  int (*write)(void*, const char*, int);
  fpos_t (*seek)(void*, fpos_t, int);
  int (*close)(void*);
};

ssize_t readStream(void* stream, char* to, size_t count) {
  auto& self = *static_cast<Stream*>(stream);
  return self.read(self.cookie, to, static_cast<int>(count));
}

ssize_t writeStream(void* stream, const char* from, size_t count) {
  auto& self = *static_cast<Stream*>(stream);
  return self.write(self.cookie, from, static_cast<int>(count));
}

int seekStream(void* stream, off64_t* offset, int whence) {
  auto& self = *static_cast<Stream*>(stream);
  const fpos_t place = self.seek(self.cookie, *offset, whence);
  if (place < 0) return -1;
  *offset = place;
  return 0;
}

int closeStream(void* stream) {
  const std::unique_ptr<Stream> self(static_cast<Stream*>(stream));
  return self->close(self->cookie);
}

// Spawn options that this system's posix_spawn() does not have.
struct SpawnRequests {
  std::mutex mutex;
  std::set<const posix_spawnattr_t*> closeOthers;
  std::map<const posix_spawn_file_actions_t*, std::set<int>> passed;
};

SpawnRequests& spawnRequests() {
  static auto* const all = new SpawnRequests;
  return *all;
}

}  // namespace
}  // namespace vorlix::standin

using namespace vorlix::standin;  // NOLINT: the system's names are global

extern "C" {

FILE* funopen(const void* cookie, int (*read)(void*, char*, int), int (*write)(void*, const char*, int),
              fpos_t (*seek)(void*, fpos_t, int), int (*close)(void*)) {
  auto stream = std::make_unique<Stream>(Stream{const_cast<void*>(cookie), read, write, seek, close});
  const cookie_io_functions_t functions = {read != nullptr ? readStream : nullptr,
                                           write != nullptr ? writeStream : nullptr,
                                           seek != nullptr ? seekStream : nullptr, closeStream};
  FILE* const made = fopencookie(stream.get(), write == nullptr ? "r" : "r+", functions);
  if (made != nullptr) static_cast<void>(stream.release());
  return made;
}

int renamex_np(const char* from, const char* to, unsigned int flags) {
  return renameat2(AT_FDCWD, from, AT_FDCWD, to, flags == RENAME_EXCL ? RENAME_NOREPLACE : 0);
}

char*** _NSGetEnviron(void) {
  return &environ;
}

int asl_log(asl_object_t, asl_object_t, int level, const char* format, ...) {
  std::array<char, 4096> text = {};
  va_list list;
  va_start(list, format);
  vsnprintf(text.data(), text.size(), format, list);
  va_end(list);
  vorlix::standin::system().logged.push_back(std::to_string(level) + " " + text.data());
  vorlix::standin::system().state->journal.push_back(std::string("system log ") + text.data());
  return 0;
}

int posix_spawn_file_actions_addinherit_np(posix_spawn_file_actions_t* actions, int descriptor) {
  return posix_spawn_file_actions_adddup2(actions, descriptor, descriptor);
}

int __wrap_posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int from, int to) {
  const std::lock_guard guard(spawnRequests().mutex);
  spawnRequests().passed[actions].insert(to);
  return __real_posix_spawn_file_actions_adddup2(actions, from, to);
}

int __wrap_posix_spawnattr_setflags(posix_spawnattr_t* attributes, short flags) {
  const std::lock_guard guard(spawnRequests().mutex);
  if ((flags & POSIX_SPAWN_CLOEXEC_DEFAULT) != 0) spawnRequests().closeOthers.insert(attributes);
  return __real_posix_spawnattr_setflags(attributes, static_cast<short>(flags & ~POSIX_SPAWN_CLOEXEC_DEFAULT));
}

// With POSIX_SPAWN_CLOEXEC_DEFAULT a program gets the descriptors that its file actions made, and no other.
int __wrap_posix_spawn(pid_t* child, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const arguments[], char* const environment[]) {
  {
    const std::lock_guard guard(spawnRequests().mutex);
    const std::set<int> passed = spawnRequests().passed[actions];
    spawnRequests().passed.erase(actions);
    if (spawnRequests().closeOthers.erase(attributes) != 0) {
      auto* const changed = const_cast<posix_spawn_file_actions_t*>(actions);
      for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (!passed.contains(stream)) posix_spawn_file_actions_addclose(changed, stream);
      }
      posix_spawn_file_actions_addclosefrom_np(changed, STDERR_FILENO + 1);
    }
  }
  return __real_posix_spawn(child, path, actions, attributes, arguments, environment);
}

}  // extern "C"
