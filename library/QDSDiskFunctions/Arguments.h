// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace vorlix {

/// Returns the string that a host passed. Null counts as empty: a name that no device, no volume and no file has.
inline const char* orEmpty(const char* argument) {
  return argument == nullptr ? "" : argument;
}

}  // namespace vorlix
