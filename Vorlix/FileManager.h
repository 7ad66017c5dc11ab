// SPDX-License-Identifier: Apache-2.0
/// @file
/// Looking at files by path.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Object.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// Answers questions about files through the platform's Files port. It has no state and any thread may ask. A host may
/// derive from it to answer otherwise. Symbolic links are followed.
class VORLIX_EXPORT FileManager : public Object {
 public:
  FileManager() = default;

  /// The process-wide instance, made on first use. Keyword form: `defaultManager`.
  static std::shared_ptr<FileManager> defaultManager();

  /// Keyword form: `fileExistsAtPath:`.
  virtual bool fileExistsAtPath(const std::string& path);

  /// @param isDirectory  set only if something exists. Keyword form: `fileExistsAtPath:isDirectory:`.
  virtual bool fileExistsAtPath(const std::string& path, bool& isDirectory);

  /// Names of a folder's entries, without "." and "..", in the order the file system gives them. Absent if it cannot be
  /// listed. Keyword form: `contentsOfDirectoryAtPath:error:`.
  virtual std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(const std::string& path);
};

}  // namespace vorlix
