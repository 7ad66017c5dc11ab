// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/FileCopy.h>

namespace vorlix {

/// Copies inside the kernel if both file systems support that, else by reading and writing.
///
/// Fails for kinds of files that the port does not name (pipes, sockets, device nodes). A file whose owner cannot be
/// kept loses the set-user-ID and set-group-ID bits.
class LinuxFileCopy final : public FileCopy {
 public:
  std::optional<std::string> copyItem(const std::string& source, const std::string& destination) override;
};

}  // namespace vorlix
