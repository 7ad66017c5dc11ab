// SPDX-License-Identifier: Apache-2.0
#include "Module.h"

#include <type_traits>

extern "C" __attribute__((visibility("default"))) vorlix::WimCall* vorlix_wim_call() {
  std::string unused;
  return vorlix::wimCall(unused);
}
static_assert(std::is_same_v<vorlix::WimCallEntry, decltype(vorlix_wim_call)>);
