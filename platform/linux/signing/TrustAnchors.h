// SPDX-License-Identifier: Apache-2.0
//
// The certificates that a host trusts to identify developers.
#pragma once

#include <filesystem>
#include <optional>

#include "OpenSSLOwned.h"

namespace vorlix {

/// Returns a store of the certificates in a folder's regular files, PEM (any number per file) or DER (one per file),
/// with the rules for chains: all certificates valid today, at least 112 bits of security for keys and signatures, at
/// most eight intermediates. Only certificates in the folder are trusted. Files without a certificate are ignored.
///
/// If this process is root, the folder, all folders above it and the files must belong to root and must not be writable
/// by others, except that folders above may be if they have the sticky bit. Absent if this is not so, if the folder
/// cannot be read, or if it has no certificate.
std::optional<OwnedStore> trustAnchors(const std::filesystem::path& folder);

}  // namespace vorlix
