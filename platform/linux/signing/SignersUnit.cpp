// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/SignersUnit.h"

#include "DetachedSignature.h"
#include "TrustAnchors.h"

namespace vorlix {

std::optional<std::string> signersUnit(const std::string& signature, int file, const std::filesystem::path& anchors) {
  const auto read = DetachedSignature::fromFile(signature);
  const auto trusted = trustAnchors(anchors);
  if (!read || !trusted) return std::nullopt;
  return read->signersUnit(file, *trusted);
}

}  // namespace vorlix
