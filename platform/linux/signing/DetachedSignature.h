// SPDX-License-Identifier: Apache-2.0
//
// A CMS signature (RFC 5652, section 5) outside the file that it signs.
#pragma once

#include <optional>
#include <string>

#include "OpenSSLOwned.h"

namespace vorlix {

class DetachedSignature {
 public:
  /// Reads a signature, DER or PEM. Absent if the file cannot be read, is not a CMS signature, or is larger than a
  /// signature with its certificates can be.
  static std::optional<DetachedSignature> fromFile(const std::string& path);

  /// Verifies the signature of a file's bytes from its start, and the chain of the signer's certificate up to
  /// `anchors`.
  ///
  /// There must be exactly one signer, with signed attributes and a digest of at least 256 bits. The content must be
  /// plain data outside the signature. The signer's certificate must be for signing code: extended key usage
  /// 1.3.6.1.5.5.7.3.3, and digital signature if it has key usages.
  ///
  /// @return the organisational unit (OU) of the signer's certificate. Absent if a check fails or the subject does not
  ///         have exactly one unit.
  std::optional<std::string> signersUnit(int file, const OwnedStore& anchors) const;

 private:
  explicit DetachedSignature(OwnedCMS cms) : cms_(std::move(cms)) {}

  OwnedCMS cms_;
};

}  // namespace vorlix
