// SPDX-License-Identifier: Apache-2.0
//
// The certificates that a host trusts to name its developers.
#pragma once

#include <filesystem>
#include <optional>

#include "OpenSSLOwned.h"

namespace vorlix {

/// A store of the certificates in a folder's regular files, PEM (any number in a file) or DER (one), with the rules
/// that chains are to keep: today within the validity of each certificate, keys and signatures of 112 bits of security
/// at least, at most eight intermediates. Nothing is trusted but what stands in the folder. A file that is no
/// certificate is passed over.
///
/// Where this process is root, the folder, all folders above it and the files must belong to root and be writable by
/// nobody else (of the folders above, one with the sticky bit may be). Absent if this is not so, if the folder cannot
/// be read or if it holds no certificate.
std::optional<OwnedStore> trustAnchors(const std::filesystem::path& folder);

}  // namespace vorlix
