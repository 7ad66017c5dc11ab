// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/resource.h>

#include <algorithm>

namespace vorlix {

/// Lowers the limit on a resource to `most`; a limit that is already lower stays. The hard limit is `margin` higher, so
/// that the process first gets the signal of the soft limit.
template <typename Resource>
void limitResource(Resource resource, rlim_t most, rlim_t margin = 0) {
  struct rlimit limits = {};
  if (getrlimit(resource, &limits) != 0) return;
  limits.rlim_max = std::min(limits.rlim_max, most + margin);
  limits.rlim_cur = std::min({limits.rlim_cur, limits.rlim_max, most});
  setrlimit(resource, &limits);
}

}  // namespace vorlix
