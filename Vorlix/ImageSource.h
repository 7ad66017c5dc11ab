// SPDX-License-Identifier: Apache-2.0
/// @file
/// What a volume can be restored from, read in order: raw images, plain or packed, with or without a block map;
/// ntfsclone's special images; backups; slices and whole devices. What a source is comes from its bytes. Nothing is
/// written.
///
/// Formats: the block map, as bmap-tools documents and writes it (versions 1.3, 1.4 and 2.0); ntfsclone's special
/// image, as ntfs-3g's sources describe and ntfsclone writes it (versions 10.0 and 10.1); the header of a WIM, as
/// published in "Windows Imaging File Format (WIM)".
#pragma once

#include <Vorlix/PartitionRecords.h>
#include <Vorlix/VolumeFacts.h>
#include <Vorlix/foundation/Export.h>
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/Unpacking.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vorlix {

/// The path that stands for standard input.
inline constexpr const char* kStandardInput = "-";

/// A piece of data has at most so many bytes, however large the caller's buffer is.
inline constexpr size_t kLargestPiece = size_t{4} << 20;

/// A block map with more ranges is refused, so that memory stays bounded: about 50 bytes for a range, which takes more
/// in the file. A backup's has at least one for each 4 MiB in use, so these are enough for 16 TiB with two million
/// gaps.
inline constexpr size_t kMostBlockMapRanges = size_t{6} << 20;

/// The files of a backup folder that a restore reads: the volume in zstd frames, and its block map.
inline constexpr const char* kBackupVolume = "volume.img.zst";
inline constexpr const char* kBackupBlockMap = "volume.bmap";

enum class ImageKind {
  raw,        ///< the bytes of the volume, in a file, a device or a slice
  ntfsclone,  ///< ntfsclone --save-image
  backup,     ///< a folder with kBackupVolume and kBackupBlockMap
  wim         ///< files in a WIM or ESD: its bytes are not a volume's, so next() fails; applyWim() makes one of them
};

/// Returns the fixed word for programs: "raw", "ntfsclone", "backup" or "wim".
VORLIX_EXPORT const char* wordFor(ImageKind kind);

/// Returns the fixed word for programs: "gzip", "xz", "zstd", "bzip2" or "zip".
VORLIX_EXPORT const char* wordFor(PackedFormat format);

/// Why a source cannot be read.
struct ImageFailure {
  std::string subject;  ///< the file or device: the image, or its block map
  std::string reason;   ///< without a full stop: "truncated gzip input"
};

/// A run of bytes of the volume.
struct ImageRange {
  uint64_t offset = 0;
  uint64_t length = 0;  ///< not 0

  friend bool operator==(const ImageRange&, const ImageRange&) = default;
};

/// What the header of a WIM says, and its list of images where that could be read.
struct WimFacts {
  struct Image {
    uint32_t index = 0;       ///< from 1
    std::string name;         ///< UTF-8; empty without one
    uint64_t size = 0;        ///< bytes of its files, unpacked; 0 where the list does not tell
    uint64_t linkedSize = 0;  ///< of these, what further names of a file count again
    uint64_t files = 0;       ///< files and folders
  };

  uint32_t imageCount = 0;
  uint16_t part = 1;  ///< of `parts`, for split files
  uint16_t parts = 1;
  bool isSolid = false;       ///< an ESD: resources are packed together
  std::vector<Image> images;  ///< empty where the source cannot be sought in, or the list is damaged
  bool isEncrypted = false;   ///< the list says so
  bool isIncomplete = false;  ///< has only contents or only metadata, for use with another file
};

/// What is known of a source before its content is read.
struct ImageFacts {
  ImageKind kind = ImageKind::raw;
  std::optional<PackedFormat> packing;  ///< absent for a file that is not packed; zstd for a backup
  std::string description;              ///< for people: "raw image packed with gzip"

  /// Bytes of the volume, where the format tells: plain files and devices, zip, xz, zstd, a block map, ntfsclone. What
  /// is read is compared with it, and a difference is a failure. Where it is absent, `volume` may tell.
  std::optional<uint64_t> size;

  /// What the volume's own boot sector says. Absent for other file systems, for the image of a whole disk, and for a
  /// WIM that is not applied.
  std::optional<VolumeFacts> volume;

  /// The first bytes of the volume, at most 4096; fewer only where the volume is smaller. Empty for a
  /// WIM that is not applied.
  std::vector<uint8_t> start;

  /// What is in use, rising, not adjacent; from a block map. Everything else comes as unused pieces.
  std::optional<std::vector<ImageRange>> ranges;

  /// Bytes that will come as data, at most, where that is known: from a block map or an ntfsclone image's header.
  std::optional<uint64_t> usedSize;

  /// Every byte that comes as data is compared with a hash of a block map, at the latest when its range ends. The
  /// checks of packed formats are made as well, but do not count here.
  bool isVerified = false;

  /// Path of the block map that is used; empty without one.
  std::string blockMap;

  /// Bytes of the file that is read, packed as it is; absent for a pipe. Progress is bytesRead() against it.
  std::optional<uint64_t> fileSize;

  /// What the source is on; absent for standard input and pipes. Tells a source that lies on the disk to be written.
  std::optional<DeviceIdentity> identity;

  std::optional<WimFacts> wim;  ///< present for a WIM only

  /// Bytes by which the source is known again when a restore goes on. Empty for all but WIMs: then `start` tells.
  std::vector<uint8_t> key;

  /// Opened again, the source has other bytes: a restore that goes on begins with the first byte again.
  bool isMadeAnew = false;
};

/// One step of reading. Pieces come in rising order without gaps or overlaps from the first byte of the volume (or
/// where moveTo() went) to its end.
struct ImagePiece {
  enum class Kind {
    data,    ///< `length` bytes are in the caller's buffer
    zeros,   ///< `length` bytes are zero; a target that holds something else there has to be overwritten
    unused,  ///< `length` bytes that the file system does not use: what a target holds there does not matter
    end,     ///< the volume ends at `offset`; all checks were right
    failure  ///< the source cannot be read on
  };

  Kind kind = Kind::end;
  uint64_t offset = 0;  ///< from the start of the volume
  uint64_t length = 0;  ///< of data, zeros and unused pieces; those that are not data have any length
  ImageFailure failure;
};

/// An open source. One thread at a time uses it, which need not be the one that opened it. It opens what it reads once
/// and closes it at the end of its life.
class VORLIX_EXPORT ImageSource {
 public:
  virtual ~ImageSource();

  const ImageFacts& facts() const { return facts_; }

  /// Reads the next piece. Data fills the buffer, or kLargestPiece bytes of it, unless something else than data follows
  /// or a hash is due; so a buffer of kLargestPiece bytes is the fastest. After the end or a failure the same comes
  /// again. @param buffer  not empty.
  virtual ImagePiece next(std::span<uint8_t> buffer) = 0;

  /// Has the next piece begin at `offset`, which is not before the position reached so far; for going on with a
  /// restore. Where the format cannot seek, what lies between is read, unpacked and dropped; ranges of a block map that
  /// lie wholly before `offset` are not compared with their hashes. Behind the end of the volume, next() tells the end.
  /// @return why it cannot; next() then tells the same.
  virtual std::optional<ImageFailure> moveTo(uint64_t offset) = 0;

  /// Bytes of the file that were read so far. Not above facts().fileSize, but where parts are read twice.
  virtual uint64_t bytesRead() const = 0;

 protected:
  ImageSource() = default;
  ImageSource(const ImageSource&) = delete;
  ImageSource& operator=(const ImageSource&) = delete;

  ImageFacts facts_;
};

struct ImageSourceOptions {
  /// A volume that turns out larger is a failure when it passes this size, whatever it unpacks from.
  uint64_t largestSize = std::numeric_limits<uint64_t>::max();
};

/// Opens a source, and reads as much of it as its kind and its facts need.
///
/// A block map is used where it lies beside a regular file that is a raw image, packed or not: the file's name with
/// ".bmap" behind it, or in place of its last suffixes, one after the other (for `a.img.gz`: `a.img.gz.bmap`,
/// `a.img.bmap`, `a.bmap`). One that cannot be read, is damaged, or is of another image is a failure, never ignored.
///
/// Refused, with the reason: an empty source; a zip file without exactly one regular file; a packed file in a packed
/// file; a format that is neither raw nor one of the above, where its first bytes tell (qcow2, VHDX, VMDK, partclone
/// images and others).
///
/// Standard input and pipes are read as they come, and cannot be opened twice.
/// @param path  a file, a device, a slice (`<whole>s<N>`), the folder of a backup, or kStandardInput.
/// @param failure  gets the reason where the result is null.
VORLIX_EXPORT std::unique_ptr<ImageSource> openImageSource(const std::string& path, const ImageSourceOptions& options,
                                                           ImageFailure& failure);

}  // namespace vorlix
