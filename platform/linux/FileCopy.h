// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/FileCopy.h>

namespace vorlix {

/// Copies by the kernel where both file systems let it, else by reading and writing.
///
/// Files of other kinds than the contract names (pipes, sockets, device nodes) are refused. A file whose owner cannot
/// be kept loses the set-user-ID and set-group-ID bits.
class LinuxFileCopy final : public FileCopy {
 public:
  std::optional<std::string> copyItem(const std::string& source, const std::string& destination) override;
};

}  // namespace vorlix
