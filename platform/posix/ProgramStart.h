// SPDX-License-Identifier: Apache-2.0
//
// The one way in which the library starts programs.
#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include <Vorlix/platform/Descriptor.h>

namespace vorlix {

/// The largest number of a descriptor that a program is given besides its three standard streams.
inline constexpr int kLargestGivenDescriptor = 3;

struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;
};

/// Makes a pipe whose ends programs do not inherit and can be given (giveable()).
/// @throws std::system_error
Pipe makePipe();

/// Returns a copy of a descriptor whose number is above all that a program is given, so that none of those overwrites
/// it, even if the host has closed a standard stream.
/// @throws std::system_error
Descriptor giveable(int descriptor);

/// What a program starts with: its descriptors, no blocked signal and the default action for each signal.
///
/// All functions throw std::system_error.
class ProgramStart {
 public:
  ProgramStart();
  ~ProgramStart();
  ProgramStart(const ProgramStart&) = delete;
  ProgramStart& operator=(const ProgramStart&) = delete;

  /// Gives the program `descriptor`, which is giveable(), under the next number: 0 is first, or 1 after
  /// useHostsInput().
  void give(int descriptor);

  /// Gives the program /dev/null as its standard input.
  void giveNoInput();

  /// Leaves the program the host's standard input.
  void useHostsInput();

  /// Starts the program with the descriptors that it was given and no other.
  /// @param path         the executable; it is not searched for.
  /// @param arguments    the program's own name first.
  /// @param environment  as execve() takes it.
  pid_t run(const std::string& path, const std::vector<std::string>& arguments, char* const* environment);

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  int next_ = 0;
  bool hasHostsInput_ = false;
};

/// Returns pointers to the strings and a null pointer, as execve() takes them. They are valid as long as the strings.
std::vector<char*> pointersTo(std::vector<std::string>& strings);

}  // namespace vorlix
