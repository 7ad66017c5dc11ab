// SPDX-License-Identifier: Apache-2.0
//
// Whether the system protects its own files from administrators.
#include <Vorlix/QDSUtilities.h>
#include <Vorlix/platform/Files.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SystemPaths.h>
#include "library/QDTaskHelper/StandardOutput.h"

namespace {

constexpr const char* kDisabledText = "System Integrity Protection status: disabled";

}  // namespace

bool QDSUtilities::isSIPEnabled() {
  const std::string tool = vorlix::platform().systemPaths->statusTool();
  if (!vorlix::platform().files->kindOf(tool)) return false;

  const auto text = vorlix::standardOutputOf({tool, {"status"}});
  // Output that is not text counts as "disabled".
  return text && text->find(kDisabledText) == std::string::npos;
}
