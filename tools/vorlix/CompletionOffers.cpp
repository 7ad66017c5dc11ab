// SPDX-License-Identifier: Apache-2.0
#include "CompletionOffers.h"

#include <Vorlix/LogCapture.h>
#include <Vorlix/platform/KeptChange.h>
#include <Vorlix/platform/LongChange.h>
#include <Vorlix/platform/MountedVolumes.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/SliceName.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <system_error>

#include "DiskTables.h"
#include "SystemDisks.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

namespace fs = std::filesystem;

using Candidates = std::vector<Candidate>;

std::string lookedUp(const std::string& name) {
  const char* const home = std::getenv("HOME");
  return withoutTilde(name, home == nullptr ? "" : home);
}

std::string joined(const std::string& first, const std::string& second) {
  return first.empty() || second.empty() ? first + second : first + ", " + second;
}

// Absent if the device cannot be read, and for what would keep a reader waiting: a pipe, a terminal.
std::optional<DiskTables> tablesOf(const std::string& device) {
  std::error_code error;
  const fs::file_status status = fs::status(device, error);
  const bool isName = !fs::exists(status);  // of a kernel's device or a slice
  if (!isName && !fs::is_regular_file(status) && !fs::is_block_file(status)) return std::nullopt;
  return quietlyReadTables(device);
}

// The numbers of a disk's slices, as the texts of the candidates.
Candidates slicesIn(const DiskTables& disk, bool ofMBR) {
  Candidates slices;
  for (size_t i = 0; disk.header && i < disk.entries.size(); ++i) {
    const GPTEntry& entry = disk.entries[i];
    if (!isUsed(entry)) continue;
    const uint64_t blocks = entry.last_lba < entry.first_lba ? 0 : entry.last_lba - entry.first_lba + 1;
    const std::string text = joined(partitionName(entry), gptTypeName(entry.guid_text));
    slices.push_back({std::to_string(i + 1), joined(text, shortSizeText(blocks * disk.blockSize))});
  }
  if (disk.header || !ofMBR || mbrKindOf(disk.sector0) != MBRKind::dos) return slices;
  for (size_t i = 0; i < 4; ++i) {
    const MBRPartitionEntry& slot = disk.mbr.parts[i];
    if (slot.type == 0) continue;
    slices.push_back(
        {std::to_string(i + 1), joined(mbrTypeName(slot.type), shortSizeText(uint64_t{slot.size} * disk.blockSize))});
  }
  return slices;
}

bool isFile(const std::string& path) {
  std::error_code error;
  return fs::is_regular_file(path, error);
}

// The one file whose name begins as the word does, as the word spells its folder.
std::optional<std::string> onlyFileLike(const std::string& word) {
  const size_t slash = word.rfind('/');
  const std::string folder = slash == std::string::npos ? "" : word.substr(0, slash + 1);
  const std::string start = word.substr(folder.size());
  if (start.empty()) return std::nullopt;
  std::optional<std::string> found;
  std::error_code error;
  for (fs::directory_iterator entry(folder.empty() ? "." : lookedUp(folder), error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (!name.starts_with(start)) continue;
    if (found) return std::nullopt;
    found = folder + name;
  }
  return found && isFile(lookedUp(*found)) ? found : std::nullopt;
}

// The image file that a word names or begins to name: itself, that of a slice that is not written out, or the only file
// of such a name.
std::optional<std::string> imageMeantBy(const std::string& word) {
  if (isFile(lookedUp(word))) return word;
  if (const size_t last = word.find_last_not_of("0123456789"); last != std::string::npos && word[last] == 's') {
    if (const std::string whole = word.substr(0, last); isFile(lookedUp(whole))) return whole;
  }
  return onlyFileLike(word);
}

void addSlicesOfImage(const std::string& word, Candidates& words) {
  const auto image = imageMeantBy(word);
  const auto disk = image ? tablesOf(lookedUp(*image)) : std::nullopt;
  if (!disk) return;
  for (const Candidate& slice : slicesIn(*disk, true)) words.push_back({*image + "s" + slice.text, slice.description});
}

// The name that a word leads to: a kernel's name without a slash if that is how the word begins, else a path.
std::string spelled(const std::string& bsdName, const std::string& word) {
  if (bsdName.starts_with("/") || (!word.empty() && bsdName.starts_with(word))) return bsdName;
  return "/dev/" + bsdName;
}

void addDevices(const std::string& word, bool withSlices, Candidates& words) {
  for (const SystemMedium& medium : systemMedia()) {
    if (medium.name.empty() || (!medium.isWhole && !withSlices)) continue;
    const std::string content = medium.isWhole ? "" : gptTypeName(medium.content);
    const std::string kind = medium.isWhole ? "disk" : content == "unknown" ? "slice" : content;
    words.push_back({spelled(medium.name, word), joined(kind, shortSizeText(medium.size))});
  }
}

void addIdentifiers(Candidates& words) {
  for (const SystemMedium& medium : systemMedia()) {
    if (const auto uuid = medium.uuid()) words.push_back({*uuid, medium.name});
  }
}

void addVolumes(ValueKind kind, Candidates& words) {
  for (const MountedVolume& volume : platform().mountedVolumes->volumes()) {
    const std::string place = volume.mountPath.value_or("");
    if (kind == ValueKind::volume && !place.empty()) words.push_back({place, joined(volume.name, volume.mountedFrom)});
    if (kind == ValueKind::mounted) words.push_back({volume.mountedFrom, joined(volume.name, place)});
    if (kind == ValueKind::label) words.push_back({volume.name, joined(volume.mountedFrom, place)});
  }
}

// Of a small backup; reading a large one takes too long while somebody waits for a list.
std::string titleOf(const std::string& folder) {
  constexpr uintmax_t kMost = uintmax_t{1} << 20;
  uintmax_t size = 0;
  std::error_code error;
  for (const fs::directory_entry& file : fs::directory_iterator(folder, error)) {
    const uintmax_t of = file.file_size(error);
    size += error ? kMost : of;
    if (size > kMost) return "";
  }
  KeptChange kept;
  return readKeptChange(folder, kept) ? "" : kept.title;
}

void addBackups(Candidates& words) {
  std::vector<std::string> newestFirst = keptChanges();
  std::reverse(newestFirst.begin(), newestFirst.end());
  for (const std::string& folder : newestFirst) {
    words.push_back({fs::path(folder).filename().string(), titleOf(folder)});
  }
}

void addRestores(Candidates& words) {
  for (const std::string& folder : interruptedLongChanges()) {
    words.push_back({fs::path(folder).filename().string(), "interrupted restore"});
  }
}

void addPartitions(const std::string& disk, const std::optional<NumberRange>& range, Candidates& words) {
  if (disk.empty()) return;
  if (const auto tables = tablesOf(lookedUp(disk))) words = slicesIn(*tables, false);
  if (range) std::erase_if(words, [&](const Candidate& word) { return std::stoi(word.text) > range->highest; });
}

OfferedPaths pathsFor(ValueKind kind) {
  switch (kind) {
    case ValueKind::disk:
    case ValueKind::device:
    case ValueKind::volume:
    case ValueKind::mounted:
    case ValueKind::file:
      return OfferedPaths::files;
    case ValueKind::folder:
    case ValueKind::backup:
    case ValueKind::restore:
      return OfferedPaths::folders;
    default:
      return OfferedPaths::none;
  }
}

}  // namespace

Offers offersFor(const Wanted& wanted) {
  const LogCapture unlogged(LogCapture::File::leftAlone);
  Offers offers{wanted.words, OfferedPaths::none};
  if (wanted.place != Wanted::Place::value) return offers;
  Candidates& words = offers.words;
  switch (wanted.kind) {
    case ValueKind::disk:
      addDevices(wanted.word, false, words);
      break;
    case ValueKind::volume:
    case ValueKind::mounted:
      addVolumes(wanted.kind, words);
      [[fallthrough]];
    case ValueKind::device:
      if (wanted.kind != ValueKind::mounted) addDevices(wanted.word, true, words);
      addSlicesOfImage(wanted.word, words);
      break;
    case ValueKind::partition:
      addPartitions(wanted.disk, wanted.range, words);
      break;
    case ValueKind::backup:
      addBackups(words);
      [[fallthrough]];
    case ValueKind::restore:  // undo gives an interrupted restore up
      addRestores(words);
      break;
    case ValueKind::label:
      addVolumes(wanted.kind, words);
      break;
    case ValueKind::identifier:
      addIdentifiers(words);
      break;
    default:
      break;
  }
  for (Candidate& candidate : words) candidate.text = wanted.before + candidate.text;
  offers.paths = pathsFor(wanted.kind);
  return offers;
}

}  // namespace vorlix::tool
