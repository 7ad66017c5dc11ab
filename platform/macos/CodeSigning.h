// SPDX-License-Identifier: Apache-2.0
//
// Code signatures as the Security framework judges them.
#pragma once

#include <Vorlix/platform/CodeSigning.h>

namespace vorlix {

class MacCodeSigning : public CodeSigning {
 public:
  CodeCheck check(int32_t process, const std::string& requirement) override;
};

}  // namespace vorlix
