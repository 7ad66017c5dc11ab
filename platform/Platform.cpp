// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/Platform.h>

#include <utility>

namespace vorlix {
namespace {

Platform& current() {
  static Platform instance = nativePlatform();
  return instance;
}

}  // namespace

const Platform& platform() {
  return current();
}

Platform setPlatform(Platform replacement) {
  return std::exchange(current(), std::move(replacement));
}

}  // namespace vorlix
