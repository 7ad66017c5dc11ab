// SPDX-License-Identifier: Apache-2.0
//
// The main bundle as Core Foundation knows it.
#pragma once

#include <Vorlix/platform/HostBundle.h>

namespace vorlix {

class MacHostBundle : public HostBundle {
 public:
  std::optional<std::string> pathForResource(const std::string& name, const std::string& type,
                                             const std::string& directory) override;
};

}  // namespace vorlix
