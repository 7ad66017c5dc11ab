// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Vorlix/platform/Files.h>

namespace vorlix {

class PosixFiles final : public Files {
 public:
  std::optional<FileKind> kindOf(const std::string& path) override;
  bool isLink(const std::string& path) override;
  std::optional<std::vector<std::string>> namesIn(const std::string& folder) override;
  std::optional<std::string> contentsOf(const std::string& path, size_t limit) override;
};

}  // namespace vorlix
