// SPDX-License-Identifier: Apache-2.0
#include "CompanionFolders.h"

namespace vorlix {

std::vector<std::filesystem::path> companionFolders(const std::filesystem::path& code) {
  std::vector<std::filesystem::path> folders;
  if (code.is_absolute()) {
    for (const char* relative : {VORLIX_COMPANIONS_FROM_BINDIR, VORLIX_COMPANIONS_FROM_LIBDIR}) {
      if (*relative != '\0') folders.push_back((code.parent_path() / relative).lexically_normal());
    }
  }
  folders.emplace_back(VORLIX_COMPANION_FOLDER);
  return folders;
}

}  // namespace vorlix
