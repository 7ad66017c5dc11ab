// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the files that the host application ships.
#pragma once

#include <optional>
#include <string>

namespace vorlix {

/// The host application's main bundle: programs and data files that the library uses and the host ships.
class HostBundle {
 public:
  virtual ~HostBundle() = default;

  /// Returns the path of a resource. Absent if the host does not ship it. The environment has no influence on the
  /// search, because a privileged host may run what is found here.
  /// @param type       the extension of the file name; empty for a name without one.
  /// @param directory  a folder of the resources, such as "tools/bin"; empty for none. The native ports look for
  /// programs
  ///                   of "tools/bin" among the library's own, too, if the host does not ship them
  ///                   (CompanionProgram.h).
  virtual std::optional<std::string> pathForResource(const std::string& name, const std::string& type,
                                                     const std::string& directory) = 0;
};

}  // namespace vorlix
