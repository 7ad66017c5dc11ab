// SPDX-License-Identifier: Apache-2.0
#include "Module.h"

#include <cstring>
#include <exception>
#include <type_traits>

#include "platform/linux/SignersUnit.h"

// Exceptions must not pass from one binary to another.
extern "C" __attribute__((visibility("default"))) long vorlix_signers_unit(const char* signature, int file,
                                                                           const char* anchors, char* unit,
                                                                           size_t size) try {
  const std::optional<std::string> found = vorlix::signersUnit(signature, file, anchors);
  if (!found || found->size() > size) return -1;
  std::memcpy(unit, found->data(), found->size());
  return static_cast<long>(found->size());
} catch (const std::exception&) {
  return -1;
}
static_assert(std::is_same_v<vorlix::SignersUnitEntry, decltype(vorlix_signers_unit)>);
