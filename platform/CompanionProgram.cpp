// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/CompanionProgram.h>

#include <Vorlix/platform/HostBundle.h>
#include <Vorlix/platform/Platform.h>

namespace vorlix {

std::optional<std::string> companionProgram(const std::string& name) {
  return platform().hostBundle->pathForResource(name, "", "tools/bin");
}

}  // namespace vorlix
