// SPDX-License-Identifier: Apache-2.0
/// @file
/// The root of the object face.
#pragma once

#include <Vorlix/foundation/Export.h>

#include <memory>

namespace vorlix {

/// The base of every class that hosts and the library hand to each other. Objects are made by their classes' factories
/// and shared; the last owner ends them. What is compared or posted as "the same object" is the same by address.
class VORLIX_EXPORT Object : public std::enable_shared_from_this<Object> {
 public:
  virtual ~Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

 protected:
  Object() = default;
};

}  // namespace vorlix
