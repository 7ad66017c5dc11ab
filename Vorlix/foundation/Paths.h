// SPDX-License-Identifier: Apache-2.0
/// @file
/// Paths as texts.
#pragma once

#include <string>
#include <string_view>

namespace vorlix {

/// Joins a path and a component with exactly one slash. If the path is empty, returns the component unchanged.
inline std::string appendPathComponent(std::string_view path, std::string_view component) {
  if (path.empty()) return std::string(component);
  while (path.ends_with('/')) path.remove_suffix(1);
  while (component.starts_with('/')) component.remove_prefix(1);
  return std::string(path) + "/" + std::string(component);
}

}  // namespace vorlix
