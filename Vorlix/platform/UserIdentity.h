// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: whom this process runs for.
#pragma once

#include <cstdint>

namespace vorlix {

class UserIdentity {
 public:
  virtual ~UserIdentity() = default;

  /// Number of the user who started the process, whatever rights it was given since; 0 is the administrator.
  virtual uint32_t realUserID() = 0;
};

}  // namespace vorlix
