// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/FileCopy.h>

namespace vorlix {

/// Copies with the system's own call, which keeps access control lists as well.
class MacFileCopy final : public FileCopy {
 public:
  std::optional<std::string> copyItem(const std::string& source, const std::string& destination) override;
};

}  // namespace vorlix
