// SPDX-License-Identifier: Apache-2.0
//
// Windows boot files on a volume of their own.
#pragma once

#include <Vorlix/foundation/Value.h>

#include <string>
#include <utility>

class QDVolume;

namespace vorlix {

/// Where boot files are on a volume, if it has any. Both are empty for a volume without a mount path.
struct BootFiles {
  std::string folder;
  std::string manager;
};

BootFiles bootFilesOf(const QDVolume& volume);

/// Whether a volume looks like the partition that Windows sets aside for its boot files, on whatever disk it is.
bool isBootPartition(const QDVolume& volume);

/// The answer of splitBootInfo().
inline Dictionary bootInfo(BootFiles files) {
  Dictionary info;
  info.set("bootFolderPath", std::move(files.folder));
  info.set("bootmgrPath", std::move(files.manager));
  return info;
}

}  // namespace vorlix
