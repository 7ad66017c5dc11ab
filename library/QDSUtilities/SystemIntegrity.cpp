// SPDX-License-Identifier: Apache-2.0
//
// Whether the system protects its own files from those who have administrator rights.
#include <Vorlix/QDSUtilities.h>
#include <sys/stat.h>

#include <utility>

#include "StatusTool.h"
#include "library/QDTaskHelper/StandardOutput.h"

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

  const auto text = vorlix::standardOutputOf({statusToolPath(), {"status"}});
  // An answer that is no text counts as one that says "disabled".
  return text && text->find(kDisabledText) == std::string::npos;
}
