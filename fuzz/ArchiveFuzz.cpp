// SPDX-License-Identifier: Apache-2.0
//
// Decodes arbitrary bytes as an archive of a volume record. A decoded record must survive encoding and decoding.
#include <Vorlix/QDVolume.h>
#include <Vorlix/foundation/Utf8.h>

#include <algorithm>

#include "FuzzSupport.h"

namespace {

using vorlix::Data;

constexpr std::optional<std::string> (QDVolume::*kTexts[])() const = {
    &QDVolume::filePath,   &QDVolume::drivePath, &QDVolume::device,    &QDVolume::diskName,
    &QDVolume::vmUsername, &QDVolume::humanSize, &QDVolume::freeSpace, &QDVolume::totalSize};

constexpr std::optional<vorlix::UUID> (QDVolume::*kUUIDs[])() const = {&QDVolume::volumeUUID, &QDVolume::mediaUUID,
                                                                       &QDVolume::mediaContentUUID};

template <typename Value>
bool sameContent(const std::shared_ptr<Value>& one, const std::shared_ptr<Value>& other) {
  return one == nullptr || other == nullptr ? one == other : *one == *other;
}

void checkText(const std::string& text) {
  FUZZ_CHECK(vorlix::isUtf8(text));
  FUZZ_CHECK(text.find('\0') == std::string::npos);
}

void checkAttributes(const vorlix::Dictionary& attributes, unsigned depth) {
  FUZZ_CHECK(depth < vorlix::KeyedUnarchiver::kDeepestNesting);
  size_t count = 0;
  for (const auto& [key, value] : attributes.values()) {
    checkText(key);
    ++count;
    if (const auto* text = std::get_if<std::string>(&value)) checkText(*text);
    const auto* below = std::get_if<std::shared_ptr<const vorlix::Dictionary>>(&value);
    // A dictionary of the archive is decoded once, no matter how many references it has, so following one of them is
    // enough.
    if (below != nullptr && count == 1) checkAttributes(**below, depth + 1);
  }
}

void checkStyled(const vorlix::AttributedString& styled) {
  checkText(styled.string());
  size_t covered = 0;
  for (const auto& run : styled.runs()) {
    FUZZ_CHECK(run.location == covered && run.length > 0);
    FUZZ_CHECK(run.attributes != nullptr);
    covered += run.length;
  }
  FUZZ_CHECK(covered == vorlix::utf16Length(styled.string()));
  if (!styled.runs().empty()) checkAttributes(*styled.runs().front().attributes, 0);
}

// Returns whether both strings have the same text, the same runs, and the same attribute names in each run.
bool sameRuns(const std::optional<vorlix::AttributedString>& one,
              const std::optional<vorlix::AttributedString>& other) {
  if (!one || !other) return !one && !other;
  const auto same = [](const auto& run, const auto& counterpart) {
    const auto& values = run.attributes->values();
    const auto& others = counterpart.attributes->values();
    return run.length == counterpart.length &&
           std::equal(values.begin(), values.end(), others.begin(), others.end(),
                      [](const auto& left, const auto& right) { return left.first == right.first; });
  };
  return one->string() == other->string() &&
         std::equal(one->runs().begin(), one->runs().end(), other->runs().begin(), other->runs().end(), same);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto volume = vorlix::KeyedUnarchiver::unarchivedObject<QDVolume>(Data(data, data + size));
  if (volume == nullptr) return 0;
  FUZZ_CHECK(!volume->vmPassword() && !volume->fileSystemType());
  FUZZ_CHECK(!volume->showLine() && !volume->isWritable() && volume->filesystemSize() == 0);
  for (const auto get : kTexts) {
    if (const auto text = (*volume.*get)()) checkText(*text);
  }
  if (volume->usageDescription()) checkStyled(*volume->usageDescription());

  const auto again =
      vorlix::KeyedUnarchiver::unarchivedObject<QDVolume>(vorlix::KeyedArchiver::archivedDataWithRootObject(volume));
  FUZZ_CHECK(again != nullptr);
  for (const auto get : kTexts) FUZZ_CHECK((*again.*get)() == (*volume.*get)());
  for (const auto get : kUUIDs) FUZZ_CHECK((*again.*get)() == (*volume.*get)());
  FUZZ_CHECK(sameContent(again->mbr(), volume->mbr()));
  FUZZ_CHECK(sameContent(again->info(), volume->info()));
  FUZZ_CHECK(sameContent(again->partitionID(), volume->partitionID()));
  FUZZ_CHECK(sameRuns(again->usageDescription(), volume->usageDescription()));
  FUZZ_CHECK(again->isVM() == volume->isVM() && again->isBootable() == volume->isBootable());
  FUZZ_CHECK(again->isRemovable() == volume->isRemovable());
  return 0;
}
