// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/FilesInPlace.h>

namespace vorlix {

class LinuxFilesInPlace final : public FilesInPlace {
 public:
  int sync(int descriptor) override;
  void forgetCached(int descriptor, uint64_t offset, uint64_t count) override;
  int syncFileSystem(int descriptor) override;
  int renameToFreeName(const char* from, const char* to) override;
};

}  // namespace vorlix
