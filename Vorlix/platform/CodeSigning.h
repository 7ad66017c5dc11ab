// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: who signed the code that another process runs.
#pragma once

#include <cstdint>
#include <string>

namespace vorlix {

/// How far a check went. Each step is done only if the step before succeeded.
enum class CodeCheck {
  numberFailed,       ///< the process identifier could not be put into the system's form
  attributesFailed,   ///< the attributes that name the process could not be made
  guestFailed,        ///< no such process is running, or its code cannot be accessed
  requirementFailed,  ///< the requirement has another form than this system understands
  invalid,            ///< the code does not satisfy the requirement
  valid,              ///< the code satisfies the requirement
};

/// Port: checks the code of a running process against a requirement.
class CodeSigning {
 public:
  virtual ~CodeSigning() = default;

  /// Checks the code of a process against a requirement in the system's requirement language. Any result other than
  /// `valid` means that the process is refused; the result is never `valid` if something cannot be found out. Any
  /// thread may call this.
  ///
  /// Process identifiers are reused. The result is about the process that has the identifier during the call, and about
  /// the code that this process runs during the call.
  virtual CodeCheck check(int32_t process, const std::string& requirement) = 0;
};

}  // namespace vorlix
