// SPDX-License-Identifier: Apache-2.0
//
// Core Foundation objects of our own types.
#pragma once

#include <CoreFoundation/CFRuntime.h>
#include <CoreFoundation/CoreFoundation.h>

#include <cstdlib>

#include "System.h"

namespace vorlix::standin {

/// Wraps `State`, which has a constant kName, in a Core Foundation object. `Reference` is the type that callers see.
template <typename Reference, typename State>
class RuntimeObject {
 public:
  static CFTypeID typeID() {
    static const CFTypeID id = _CFRuntimeRegisterClass(&runtimeClass());
    return id;
  }

  /// Takes over `state`. @return an object with one reference, which the caller owns.
  static Reference create(State* state) {
    auto* const made = reinterpret_cast<Instance*>(const_cast<void*>(
        _CFRuntimeCreateInstance(kCFAllocatorDefault, typeID(), sizeof(Instance) - sizeof(CFRuntimeBase), nullptr)));
    made->state = state;
    ++live()[State::kName];
    return reinterpret_cast<Reference>(made);
  }

  static State& of(CFTypeRef object) {
    if (CFGetTypeID(object) != typeID()) {
      report(std::string("an object of another kind was taken for a ") + State::kName);
      std::abort();
    }
    return *static_cast<const Instance*>(object)->state;
  }

 private:
  struct Instance {
    CFRuntimeBase base;
    State* state;
  };

  static void finalize(CFTypeRef object) {
    delete static_cast<const Instance*>(object)->state;
    --live()[State::kName];
  }

  static const CFRuntimeClass& runtimeClass() {
    static const CFRuntimeClass instance = [] {
      CFRuntimeClass made = {};
      made.className = State::kName;
      made.finalize = finalize;
      return made;
    }();
    return instance;
  }
};

}  // namespace vorlix::standin
