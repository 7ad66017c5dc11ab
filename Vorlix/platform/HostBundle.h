// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the files that the host application ships.
#pragma once

#include <optional>
#include <string>

namespace vorlix {

/// The host application's main bundle: programs and data files that the library uses but does not bring.
class HostBundle {
 public:
  virtual ~HostBundle() = default;

  /// Path of the resource of that name and type, which is the file name's extension; an empty type is for a name
  /// without one. Absent if the host ships none. Never led astray by the environment: a privileged host may run what is
  /// found here.
  /// @param directory  folder among the resources, such as "tools/bin"; empty for none.
  virtual std::optional<std::string> pathForResource(const std::string& name, const std::string& type,
                                                     const std::string& directory) = 0;
};

}  // namespace vorlix
