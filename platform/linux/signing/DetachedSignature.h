// SPDX-License-Identifier: Apache-2.0
//
// A CMS signature (RFC 5652, section 5) that stands apart from the file it signs.
#pragma once

#include <optional>
#include <string>

#include "OpenSSLOwned.h"

namespace vorlix {

class DetachedSignature {
 public:
  /// Reads a signature, DER or PEM. Absent if there is none that can be read, it is no CMS signature, or the file is
  /// larger than any signature with its certificates is.
  static std::optional<DetachedSignature> fromFile(const std::string& path);

  /// Verifies the signature over a file's bytes from its start, and the signer's certificate up to `anchors`.
  ///
  /// There must be exactly one signer, with signed attributes and a digest of 256 bits at least; the content must be
  /// plain data and not be in the signature. The signer's certificate must be meant for signing code (extended key
  /// usage 1.3.6.1.5.5.7.3.3, and digital signature if it names key usages).
  ///
  /// @return the organisational unit (OU) of the signer's certificate. Absent if anything of this fails or the subject
  ///         does not have exactly one.
  std::optional<std::string> signersUnit(int file, const OwnedStore& anchors) const;

 private:
  explicit DetachedSignature(OwnedCMS cms) : cms_(std::move(cms)) {}

  OwnedCMS cms_;
};

}  // namespace vorlix
