// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: who signed the code that another process runs.
#pragma once

#include <cstdint>
#include <string>

namespace vorlix {

/// How far a check went, in the order of its steps; each is taken only if the one before succeeded.
enum class CodeCheck {
  numberFailed,       ///< the process identifier could not be put into the system's form
  attributesFailed,   ///< nor the attributes that name the process
  guestFailed,        ///< no such process runs, or its code cannot be reached
  requirementFailed,  ///< the requirement text was not understood
  invalid,            ///< the code does not satisfy the requirement
  valid,              ///< it does
};

class CodeSigning {
 public:
  virtual ~CodeSigning() = default;

  /// Checks the code of a process against a requirement in the system's requirement language. An answer other than
  /// `valid` refuses the process; what cannot be found out is never `valid`. Any thread may ask.
  ///
  /// A process identifier does not name one process for good: the answer is about the process that has it during the
  /// call, and about the code that this process runs during the call.
  virtual CodeCheck check(int32_t process, const std::string& requirement) = 0;
};

}  // namespace vorlix
