// SPDX-License-Identifier: Apache-2.0
#include "VolumeProbe.h"

#include <blkid.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <type_traits>
#include <utility>

namespace vorlix {
namespace {

struct ProbeDeleter {
  void operator()(blkid_probe probe) const { blkid_free_probe(probe); }
};
using Probe = std::unique_ptr<std::remove_pointer_t<blkid_probe>, ProbeDeleter>;

// A size of 0 is all of the device. Nothing is looked for yet.
Probe probeOf(int descriptor, Extent window) {
  Probe probe(blkid_new_probe());
  if (!probe) return nullptr;
  if (blkid_probe_set_device(probe.get(), descriptor, static_cast<blkid_loff_t>(window.offset),
                             static_cast<blkid_loff_t>(window.size)) != 0) {
    return nullptr;
  }
  blkid_probe_enable_superblocks(probe.get(), 0);
  return probe;
}

std::optional<std::string> textOf(const char* text) {
  if (text == nullptr || *text == '\0') return std::nullopt;
  return validText(text);
}

std::optional<std::string> valueOf(const Probe& probe, const char* name) {
  const char* value = nullptr;
  if (blkid_probe_lookup_value(probe.get(), name, &value, nullptr) != 0) return std::nullopt;
  return textOf(value);
}

// udev writes bytes that could disturb a shell as "\xNN".
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

VolumeFacts factsOf(const std::string& type, std::optional<std::string> label, const std::optional<std::string>& uuid) {
  VolumeFacts facts;
  facts.kind = volumeKindOf(type).value_or(type);
  facts.label = std::move(label);
  if (uuid) facts.uuid = UUID::fromText(*uuid);
  return facts;
}

// How many bytes the UTF-8 character at `at` takes; 0 where there is none (RFC 3629).
size_t characterLength(const std::string& text, size_t at) {
  const auto byte = [&](size_t i) { return at + i < text.size() ? static_cast<uint8_t>(text[at + i]) : uint8_t{0}; };
  const auto follows = [&](size_t i) { return (byte(i) & 0xC0U) == 0x80U; };
  const uint8_t first = byte(0);
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first <= 0xDF) return follows(1) ? 2 : 0;
  if (first >= 0xE0 && first <= 0xEF) {
    const bool overlong = first == 0xE0 && byte(1) < 0xA0;
    const bool surrogate = first == 0xED && byte(1) > 0x9F;
    return follows(1) && follows(2) && !overlong && !surrogate ? 3 : 0;
  }
  if (first >= 0xF0 && first <= 0xF4) {
    const bool overlong = first == 0xF0 && byte(1) < 0x90;
    const bool pastEnd = first == 0xF4 && byte(1) > 0x8F;
    return follows(1) && follows(2) && follows(3) && !overlong && !pastEnd ? 4 : 0;
  }
  return 0;
}

}  // namespace

std::optional<VolumeFacts> probeVolume(int descriptor, Extent window) {
  const Probe probe = window.size == 0 ? nullptr : probeOf(descriptor, window);
  if (!probe) return std::nullopt;
  blkid_probe_set_superblocks_flags(probe.get(),
                                    BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID | BLKID_SUBLKS_USAGE);
  blkid_probe_enable_superblocks(probe.get(), 1);
  if (blkid_do_safeprobe(probe.get()) != 0) return std::nullopt;
  const std::optional<std::string> type = valueOf(probe, "TYPE");
  if (!type || valueOf(probe, "USAGE") != "filesystem") return std::nullopt;
  return factsOf(*type, valueOf(probe, "LABEL"), valueOf(probe, "UUID"));
}

std::optional<VolumeFacts> volumeInUdevRecord(const std::map<std::string, std::string>& record) {
  const auto field = [&](const char* key) {
    const auto found = record.find(key);
    return found == record.end() ? std::nullopt : textOf(unescaped(found->second).c_str());
  };
  const std::optional<std::string> type = field("ID_FS_TYPE");
  if (!type || field("ID_FS_USAGE") != "filesystem") return std::nullopt;
  return factsOf(*type, field("ID_FS_LABEL_ENC"), field("ID_FS_UUID"));
}

std::optional<std::string> probePartitionName(int descriptor, uint32_t blockSize, uint32_t number) {
  const Probe probe = probeOf(descriptor, {});
  if (!probe || blkid_probe_set_sectorsize(probe.get(), blockSize) != 0) return std::nullopt;
  const blkid_partlist list = blkid_probe_get_partitions(probe.get());
  if (list == nullptr) return std::nullopt;
  const blkid_partition partition = blkid_partlist_get_partition_by_partno(list, static_cast<int>(number));
  return partition == nullptr ? std::nullopt : textOf(blkid_partition_get_name(partition));
}

std::optional<std::string> volumeKindOf(const std::string& fileSystem) {
  if (fileSystem == "fuseblk") return std::nullopt;
  if (fileSystem == "vfat" || fileSystem == "msdos") return "msdos";
  if (fileSystem == "ntfs3") return "ntfs";
  if (fileSystem == "hfsplus") return "hfs";
  return fileSystem;
}

std::string validText(const std::string& text) {
  std::string valid;
  for (size_t at = 0; at < text.size();) {
    const size_t length = characterLength(text, at);
    valid += length == 0 ? "\xEF\xBF\xBD" : text.substr(at, length);
    at += std::max<size_t>(length, 1);
  }
  return valid;
}

}  // namespace vorlix
