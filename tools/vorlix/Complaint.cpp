// SPDX-License-Identifier: Apache-2.0
#include "Complaint.h"

#include <cstdio>

#include "Text.h"

namespace vorlix::tool {

void complain(const std::string& text) {
  std::fflush(stdout);
  std::fprintf(stderr, "vorlix: %s\n", printable(text).c_str());
}

bool& isVerbose() {
  static bool isSet = false;
  return isSet;
}

}  // namespace vorlix::tool
