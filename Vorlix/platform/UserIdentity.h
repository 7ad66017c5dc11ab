// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the user of this process.
#pragma once

#include <cstdint>

namespace vorlix {

/// Port: the user of the process.
class UserIdentity {
 public:
  virtual ~UserIdentity() = default;

  /// Returns the number of the user who started the process, whatever rights it has now; 0 is the administrator.
  virtual uint32_t realUserID() = 0;
};

}  // namespace vorlix
