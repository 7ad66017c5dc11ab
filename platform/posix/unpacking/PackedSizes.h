// SPDX-License-Identifier: Apache-2.0
//
// The sizes that packed files tell before they are unpacked. Nothing is trusted: a wrong size is noticed when the data
// ends elsewhere.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Unpacker.h"

namespace vorlix {

/// The unpacked size by the indexes of an .xz file (The .xz File Format 1.1.0, sections 2.1.2, 4 and 5), of at most 64
/// streams and 16 MiB. Absent for larger ones, damaged ones, and files that cannot be sought in.
std::optional<uint64_t> xzSize(const PackedFile& file);

/// The unpacked size by the frames' headers (RFC 8878, section 3.1), of at most 65536 blocks, 8 GiB as the tool packs.
/// Absent for longer files, if a frame does not tell, for damaged ones, and files that cannot be sought in.
std::optional<uint64_t> zstdSize(const PackedFile& file);

/// The only regular file of a zip file by its directory (APPNOTE 6.3, sections 4.3.12 to 4.3.16).
struct ZippedFile {
  uint64_t headerOffset = 0;
  uint64_t size = 0;
};

/// Reads the directory, of at most 1 MiB. Absent with a `reason` where there is not exactly one file that is not
/// encrypted.
std::optional<ZippedFile> findZippedFile(const PackedFile& file, std::string& reason);

}  // namespace vorlix
