// SPDX-License-Identifier: Apache-2.0
//
// Ownership of Core Foundation references.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <memory>
#include <type_traits>

namespace vorlix {

struct CFReleaser {
  void operator()(CFTypeRef reference) const { CFRelease(reference); }
};

/// Owns a reference from a function with "Create" or "Copy" in its name. Empty if that function returned null.
template <typename Reference>
using CFOwned = std::unique_ptr<std::remove_pointer_t<Reference>, CFReleaser>;

}  // namespace vorlix
