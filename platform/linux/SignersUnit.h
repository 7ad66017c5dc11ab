// SPDX-License-Identifier: Apache-2.0
//
// Finding out who signed a file. Only this needs OpenSSL, and loading OpenSSL takes longer than most commands. So for
// the program and the shared library it is in a module, signing.so, which the first call loads. The archive for hosts
// that link statically contains it.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace vorlix {

/// Verifies a detached signature (signing/DetachedSignature.h) of an open file with the certificates in `anchors`
/// (signing/TrustAnchors.h).
/// @param signature  path of the signature.
/// @param file       descriptor of the signed file, which is read from its start.
/// @return the organisational unit (OU) of the signer's certificate. Absent if anything fails. If the module cannot be
///         loaded, the system's log has the reason.
std::optional<std::string> signersUnit(const std::string& signature, int file, const std::filesystem::path& anchors);

}  // namespace vorlix
