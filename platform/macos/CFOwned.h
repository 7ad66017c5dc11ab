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

/// A reference that came from a function with "Create" or "Copy" in its name, released at the end of its owner's life.
/// Empty where that function gave null.
template <typename Reference>
using CFOwned = std::unique_ptr<std::remove_pointer_t<Reference>, CFReleaser>;

}  // namespace vorlix
