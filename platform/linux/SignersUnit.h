// SPDX-License-Identifier: Apache-2.0
//
// Who signed a file. This is the one thing that OpenSSL is needed for, and loading OpenSSL takes longer than most
// commands do. So the program and the shared library have it in a module, signing.so, which is loaded by the first
// call; the archive for hosts that link statically has it inside.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace vorlix {

/// Verifies a detached signature (signing/DetachedSignature.h) of an open file, with the certificates that stand in
/// `anchors` (signing/TrustAnchors.h).
/// @param signature  path of the signature.
/// @param file       descriptor; what it reads from its start on is what was signed.
/// @return the organisational unit (OU) of the signer's certificate. Absent if anything fails, also the module's
/// loading,
///         of which the system's log tells.
std::optional<std::string> signersUnit(const std::string& signature, int file, const std::filesystem::path& anchors);

}  // namespace vorlix
