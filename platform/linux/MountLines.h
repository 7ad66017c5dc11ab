// SPDX-License-Identifier: Apache-2.0
//
// The lines of /proc/self/mountinfo, as proc(5) describes them.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorlix {

/// A line. Names are as they are on the system: the kernel's escapes (\040 for a space) are resolved.
struct MountLine {
  int id = 0;
  dev_t number = 0;
  std::string root;           ///< the folder of the file system that is mounted
  std::string path;           ///< the mount point; without the "//deleted" of one whose folder was removed
  std::string mountOptions;   ///< those of this mount, with commas between them, with their escapes
  std::string fileSystem;     ///< "ext4"; "fuse.sshfs"
  std::string source;         ///< may be empty
  std::string volumeOptions;  ///< those of the file system, likewise
};

/// The lines of a whole text, without those that are none.
std::vector<MountLine> mountLines(std::string_view text);

/// Finds an option by name. Its value is empty if it has none, and has its escapes resolved.
std::optional<std::string> mountOption(std::string_view options, std::string_view name);

/// Finds the file systems that are on devices in the text of /proc/filesystems, which marks the others with "nodev".
std::vector<std::string> deviceFileSystems(std::string_view text);

}  // namespace vorlix
