// SPDX-License-Identifier: Apache-2.0
#include "VolumeProbe.h"

#include <Vorlix/foundation/Utf8.h>

#include <charconv>
#include <utility>

#include "BlkidProbe.h"

namespace vorlix {
namespace {

// Absent for an empty text.
std::optional<std::string> shownText(const char* text) {
  if (text == nullptr || *text == '\0') return std::nullopt;
  return repairedUtf8(text);
}

std::optional<std::string> valueOf(const BlkidProbe& probe, const char* name) {
  const char* value = nullptr;
  if (blkid_probe_lookup_value(probe.get(), name, &value, nullptr) != 0) return std::nullopt;
  return shownText(value);
}

// udev writes bytes with a meaning in shells as "\xNN".
std::string unescaped(const std::string& text) {
  std::string bytes;
  for (size_t at = 0; at < text.size(); ++at) {
    unsigned value = 0;
    const char* const digits = text.data() + at + 2;
    const bool isEscape = text.compare(at, 2, "\\x") == 0 && text.size() - at >= 4 &&
                          std::from_chars(digits, digits + 2, value, 16).ptr == digits + 2;
    bytes += isEscape ? static_cast<char>(value) : text[at];
    if (isEscape) at += 3;
  }
  return bytes;
}

ProbedVolume factsOf(const std::string& type, std::optional<std::string> label,
                     const std::optional<std::string>& uuid) {
  ProbedVolume facts;
  facts.kind = volumeKindOf(type).value_or(type);
  facts.label = std::move(label);
  if (uuid) facts.uuid = UUID::fromText(*uuid);
  return facts;
}

}  // namespace

std::optional<ProbedVolume> probeVolume(int descriptor, Extent window) {
  const BlkidProbe probe = window.size == 0 ? nullptr : blkidProbeOf(descriptor, window);
  if (!probe) return std::nullopt;
  blkid_probe_set_superblocks_flags(probe.get(),
                                    BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID | BLKID_SUBLKS_USAGE);
  blkid_probe_enable_superblocks(probe.get(), 1);
  if (blkid_do_safeprobe(probe.get()) != 0) return std::nullopt;
  const std::optional<std::string> type = valueOf(probe, "TYPE");
  if (!type || valueOf(probe, "USAGE") != "filesystem") return std::nullopt;
  return factsOf(*type, valueOf(probe, "LABEL"), valueOf(probe, "UUID"));
}

std::optional<ProbedVolume> volumeInUdevRecord(const std::map<std::string, std::string>& record) {
  const auto field = [&](const char* key) {
    const auto found = record.find(key);
    return found == record.end() ? std::nullopt : shownText(unescaped(found->second).c_str());
  };
  const std::optional<std::string> type = field("ID_FS_TYPE");
  if (!type || field("ID_FS_USAGE") != "filesystem") return std::nullopt;
  return factsOf(*type, field("ID_FS_LABEL_ENC"), field("ID_FS_UUID"));
}

std::optional<std::string> volumeKindOf(const std::string& fileSystem) {
  if (fileSystem == "fuseblk") return std::nullopt;
  if (fileSystem == "vfat" || fileSystem == "msdos") return "msdos";
  if (fileSystem == "ntfs3") return "ntfs";
  if (fileSystem == "hfsplus") return "hfs";
  return fileSystem;
}

}  // namespace vorlix
