// SPDX-License-Identifier: Apache-2.0
//
// Whether the system protects its own files from those who have administrator rights.
#include <Vorlix/QDSUtilities.h>
#include <Vorlix/foundation/Utf8.h>
#include <Vorlix/platform/ChildProcess.h>
#include <Vorlix/platform/Platform.h>
#include <sys/stat.h>

#include <utility>

#include "StatusTool.h"

namespace {

constexpr const char* kDisabledText = "System Integrity Protection status: disabled";

std::string& statusToolPath() {
  static std::string path = vorlix::kStatusToolPath;
  return path;
}

}  // namespace

void vorlix::setStatusToolPath(std::string path) {
  statusToolPath() = path.empty() ? kStatusToolPath : std::move(path);
}

bool QDSUtilities::isSIPEnabled() {
  struct stat status = {};
  if (stat(statusToolPath().c_str(), &status) != 0) return false;

  const auto child =
      vorlix::platform().childProcess->create(vorlix::ChildOutputs::errorUnread, vorlix::ChildInput::inherited);
  child->launch(statusToolPath(), {"status"});
  const auto output = child->standardOutput();
  std::string text;
  for (vorlix::Data chunk = output->read(); !chunk.empty(); chunk = output->read()) {
    text.append(chunk.begin(), chunk.end());
  }
  // An answer that is no text counts as one that says "disabled".
  return vorlix::isUtf8(text) && text.find(kDisabledText) == std::string::npos;
}
