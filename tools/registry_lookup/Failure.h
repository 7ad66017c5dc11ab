// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>

namespace vorlix::registry {

/// Why a hive cannot be read, in words for the person who asked.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace vorlix::registry
