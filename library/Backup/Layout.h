// SPDX-License-Identifier: Apache-2.0
//
// The files of a backup (docs/backup.md).
#pragma once

#include <cstdint>
#include <string>

namespace vorlix {

inline constexpr const char* kImageFile = "volume.img.zst";
inline constexpr const char* kMapFile = "volume.bmap";
inline constexpr const char* kManifestFile = "manifest.json";

inline constexpr uint64_t kFrameSize = uint64_t{4} << 20;  ///< bytes of the volume in a frame; fewer in the last one
inline constexpr uint64_t kMapBlock = 512;                 ///< the unit of the block map's ranges

/// How many frames a volume of a size has.
inline uint64_t frameCountOf(uint64_t size) {
  return size / kFrameSize + (size % kFrameSize != 0 ? 1 : 0);
}

// The table behind the last frame, by which one finds a frame without reading those before it: a frame that readers of
// zstd skip (RFC 8878, section 3.1.2), in the form of zstd's seekable format.
inline constexpr uint32_t kSkippableMagic = 0x184D2A5E;
inline constexpr uint32_t kSeekTableMagic = 0x8F92EAB1;
inline constexpr uint64_t kSeekHeader = 8;
inline constexpr uint64_t kSeekEntry = 8;
inline constexpr uint64_t kSeekFooter = 9;

}  // namespace vorlix
