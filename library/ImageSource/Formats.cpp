// SPDX-License-Identifier: Apache-2.0
#include "Formats.h"

#include <Vorlix/ImageSource.h>
#include <Vorlix/foundation/LittleEndian.h>

#include <cstring>
#include <string_view>

namespace vorlix {
namespace {

using namespace std::string_view_literals;

struct Mark {
  size_t offset;
  std::string_view bytes;
  const char* name;
};

constexpr Mark kForeign[] = {
    {0, "QFI\xFB"sv, "qcow2 image"},
    {0, "vhdxfile"sv, "VHDX image"},
    {0, "conectix"sv, "VHD image"},
    {0, "KDMV"sv, "VMDK image"},
    {64, "\x7F\x10\xDA\xBE"sv, "VDI image"},
    {0, "partclone-image"sv, "partclone image"},
    {0, "7z\xBC\xAF\x27\x1C"sv, "7z archive"},
    {0, "Rar!\x1A\x07"sv, "RAR archive"},
    {0, "xar!"sv, "xar archive"},
    {0, "\x04\x22\x4D\x18"sv, "lz4 file"},
    {0, "\x89LZO\0\r\n\x1A\n"sv, "lzop file"},
    {0, "LRZI"sv, "lrzip file"},
    {0, "LZIP"sv, "lzip file"},
    {0, "\x1F\x9D"sv, "compress file"},
    {257, "ustar"sv, "tar archive"},
    {0, "encrcdsa"sv, "encrypted disk image"},
};

bool holdsAt(std::span<const uint8_t> start, size_t offset, std::string_view bytes) {
  return start.size() >= offset + bytes.size() && std::memcmp(start.data() + offset, bytes.data(), bytes.size()) == 0;
}

}  // namespace

std::optional<PackedFormat> packingOf(std::span<const uint8_t> start) {
  if (holdsAt(start, 0, "\x1F\x8B\x08"sv)) return PackedFormat::gzip;
  if (holdsAt(start, 0,
              "\xFD"
              "7zXZ\0"sv)) {
    return PackedFormat::xz;
  }
  if (holdsAt(start, 0, "\x28\xB5\x2F\xFD"sv)) return PackedFormat::zstd;
  constexpr uint32_t kFirstSkippable = 0x184D2A50;  // of sixteen frames that zstd leaves out
  if (start.size() >= 4 && littleEndian32(start.data()) - kFirstSkippable < 16) return PackedFormat::zstd;
  const bool isBlock = holdsAt(start, 4, "\x31\x41\x59\x26\x53\x59"sv);
  const bool isEnd = holdsAt(start, 4, "\x17\x72\x45\x38\x50\x90"sv);
  if (holdsAt(start, 0, "BZh"sv) && (isBlock || isEnd)) return PackedFormat::bzip2;
  for (const auto mark : {"PK\x03\x04"sv, "PK\x05\x06"sv, "PK\x07\x08"sv}) {
    if (holdsAt(start, 0, mark)) return PackedFormat::zip;
  }
  return std::nullopt;
}

std::string foreignFormat(std::span<const uint8_t> start) {
  for (const Mark& mark : kForeign) {
    if (holdsAt(start, mark.offset, mark.bytes)) return mark.name;
  }
  return {};
}

const char* wordFor(PackedFormat format) {
  switch (format) {
    case PackedFormat::gzip:
      return "gzip";
    case PackedFormat::xz:
      return "xz";
    case PackedFormat::zstd:
      return "zstd";
    case PackedFormat::bzip2:
      return "bzip2";
    case PackedFormat::zip:
      return "zip";
  }
  return "";
}

const char* wordFor(ImageKind kind) {
  switch (kind) {
    case ImageKind::raw:
      return "raw";
    case ImageKind::ntfsclone:
      return "ntfsclone";
    case ImageKind::backup:
      return "backup";
    case ImageKind::wim:
      return "wim";
  }
  return "";
}

}  // namespace vorlix
