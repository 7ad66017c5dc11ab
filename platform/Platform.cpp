// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/Platform.h>

#include <utility>

namespace vorlix {
namespace {

Platform& current() {
  static auto* const instance =
      new Platform(nativePlatform());  // never destroyed, as what is shared needs it to the end
  return *instance;
}

}  // namespace

const Platform& platform() {
  return current();
}

Platform setPlatform(Platform replacement) {
  return std::exchange(current(), std::move(replacement));
}

}  // namespace vorlix
