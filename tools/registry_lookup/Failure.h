// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>

namespace vorlix::registry {

/// A hive cannot be read; what() is the reason as users see it.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace vorlix::registry
