// SPDX-License-Identifier: Apache-2.0
/// @file
/// The base class of the library's objects.
#pragma once

#include <Vorlix/foundation/Export.h>

#include <memory>

namespace vorlix {

/// The base of every class whose objects hosts and the library exchange. Factories of the classes create shared
/// objects; the last owner destroys them. Objects are compared by address.
class VORLIX_EXPORT Object : public std::enable_shared_from_this<Object> {
 public:
  virtual ~Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

 protected:
  Object() = default;
};

}  // namespace vorlix
