// SPDX-License-Identifier: Apache-2.0
#include "CommandShape.h"

namespace vorlix::tool {

const char* nameOf(ValueKind kind) {
  switch (kind) {
    case ValueKind::undeclared:
      return "undeclared";
    case ValueKind::text:
      return "text";
    case ValueKind::choice:
      return "choice";
    case ValueKind::disk:
      return "disk";
    case ValueKind::device:
      return "device";
    case ValueKind::volume:
      return "volume";
    case ValueKind::mounted:
      return "mounted";
    case ValueKind::partition:
      return "partition";
    case ValueKind::file:
      return "file";
    case ValueKind::folder:
      return "folder";
    case ValueKind::backup:
      return "backup";
    case ValueKind::restore:
      return "restore";
    case ValueKind::label:
      return "label";
    case ValueKind::identifier:
      return "identifier";
  }
  return "undeclared";
}

}  // namespace vorlix::tool
