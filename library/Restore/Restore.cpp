// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/Restore.h>

#include <Vorlix/foundation/Sha256.h>
#include <Vorlix/platform/SystemError.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "ContentWriter.h"
#include "foundation/Zeros.h"

namespace vorlix {
namespace {

constexpr size_t kSerialNumber = 72;  // of NTFS
constexpr size_t kSerialNumberSize = 8;

std::string hashOfStart(const ImageSource& source) {
  const ImageFacts& facts = source.facts();
  return sha256(facts.key.empty() ? facts.start : facts.key);
}

// A volume that is made anew has another serial number, and the journal's boot sector the earlier one. Nothing else
// may differ, for the rest of the boot sector says where things are.
bool fitsBootSector(const LongChange& journal, const std::vector<uint8_t>& start) {
  const auto& runs = journal.structures().devices[journal.origin().device].bytes;
  const auto first = std::find_if(runs.begin(), runs.end(), [](const ByteChange& run) { return run.offset == 0; });
  if (first == runs.end() || start.size() < first->after.size()) return false;
  std::vector<uint8_t> expected = first->after;
  for (size_t i = kSerialNumber; i < kSerialNumber + kSerialNumberSize; ++i) expected.at(i) = start[i];
  return std::equal(expected.begin(), expected.end(), start.begin());
}

// What was written came from a volume that is gone.
std::optional<ChangeFailure> startAgain(LongChange& journal, const ImageSource& source) {
  if (fitsBootSector(journal, source.facts().start)) return journal.restart();
  return ChangeFailure{journal.origin().source, "becomes another volume than when the restore began", ""};
}

// Writes structures of the plan, over whatever is there now.
// @param device  index of the only device that is written to; absent for all
std::optional<ChangeFailure> writeStructures(const LongChange& journal,
                                             const std::vector<std::shared_ptr<DeviceHandle>>& handles,
                                             std::optional<size_t> only) {
  DiskChange change = {journal.structures().title, {}};
  for (size_t i = 0; i < handles.size(); ++i) {
    if (only && *only != i) continue;
    DeviceChange& device = change.devices.emplace_back(journal.structures().devices[i]);
    device.handle = handles[i];
    for (ByteChange& run : device.bytes) {
      const ssize_t got = device.handle->readAt(run.before.data(), run.before.size(), run.offset);
      if (got == static_cast<ssize_t>(run.before.size())) continue;
      const std::string reason = got < 0 ? SystemError{errno}.reason() : "the device ends too early";
      return ChangeFailure{device.device, "at byte " + std::to_string(run.offset) + ": " + reason, ""};
    }
  }
  auto failure = applyChange(change);
  // Both are true of the structures, but not of the volume.
  if (failure && failure->state == kNothingWritten) failure->state = "";
  if (failure && failure->state == kPutBack) failure->state = "what was written there was put back";
  return failure;
}

// The journal becomes a backup. If that fails, it may still be there.
std::optional<ChangeFailure> finishJournal(LongChange& journal, RestoreResult& result) {
  const std::string folder = journal.folder();
  auto failure = journal.finish(result.kept);
  result.journal = failure && journal.folder() == folder ? folder : "";
  return failure;
}

// What the devices are, so that they can be known again.
std::vector<std::optional<DeviceIdentity>> identitiesOf(const std::vector<std::shared_ptr<DeviceHandle>>& handles) {
  std::vector<std::optional<DeviceIdentity>> identities;
  for (const auto& handle : handles) identities.push_back(handle->identity());
  return identities;
}

// The content, and the structures that come before a pause.
std::optional<ChangeFailure> runSteps(LongChange& journal, ContentWriter& content,
                                      const std::vector<std::shared_ptr<DeviceHandle>>& handles, bool compare,
                                      RestoreResult& result) {
  std::optional<ChangeFailure> failure = content.write(compare);
  if (!failure && !content.isCancelled() && compare) failure = content.compare();
  if (failure || content.isCancelled()) return failure;
  const ContentOrigin& origin = journal.origin();
  if (!origin.between.empty()) return writeStructures(journal, handles, origin.device);
  failure = writeStructures(journal, handles, std::nullopt);
  return failure ? failure : finishJournal(journal, result);
}

RestoreResult::End endOf(const LongChange& journal, const ContentWriter& content) {
  if (content.isCancelled()) return RestoreResult::End::cancelled;
  return journal.origin().between.empty() ? RestoreResult::End::done : RestoreResult::End::paused;
}

// Somebody may exchange a disk while it is closed.
std::optional<ChangeFailure> requireSameDevices(const LongChange& journal, const RestoreResult& paused,
                                                const std::vector<std::shared_ptr<DeviceHandle>>& handles) {
  const auto now = identitiesOf(handles);
  for (size_t i = 0; i < now.size(); ++i) {
    if (now[i] == paused.devices.at(i)) continue;
    return ChangeFailure{journal.structures().devices[i].device, "is another disk than before", ""};
  }
  return std::nullopt;
}

std::optional<ChangeFailure> readNow(const DeviceChange& device, DeviceHandle& handle, uint64_t offset,
                                     std::vector<uint8_t>& now) {
  const ssize_t got = handle.readAt(now.data(), now.size(), offset);
  if (got == static_cast<ssize_t>(now.size())) return std::nullopt;
  return ChangeFailure{device.device, got < 0 ? SystemError{errno}.reason() : "the device ends too early",
                       kNothingWritten};
}

// An interrupted restore may leave anything on the volume after its first sector.
bool isKnown(const ByteChange& run, bool isOnVolume) {
  return !isOnVolume || run.offset == 0;
}

// Another disk may have the name by now. Outside of the volume, an interrupted restore leaves each structure with one
// of its two contents, and the volume's first sector with one of them or blank.
bool isAsLeft(const ByteChange& run, const std::vector<uint8_t>& now, bool isOnVolume) {
  const size_t count = isOnVolume ? std::min<size_t>(now.size(), kSectorSize) : now.size();
  const auto end = now.begin() + static_cast<std::ptrdiff_t>(count);
  if (std::equal(now.begin(), end, run.before.begin()) || std::equal(now.begin(), end, run.after.begin())) return true;
  return isOnVolume && areZeros(std::span(now).first(count));
}

ChangeFailure changedSince(const DeviceChange& device, const ByteChange& run) {
  return {device.device, run.reason + " was changed since", kNothingWritten};
}

std::optional<ChangeFailure> requireAsLeft(const LongChange& journal,
                                           const std::vector<std::shared_ptr<DeviceHandle>>& handles) {
  for (size_t i = 0; i < handles.size(); ++i) {
    const DeviceChange& device = journal.structures().devices[i];
    const bool isVolume = i == journal.origin().device;
    for (const ByteChange& run : device.bytes) {
      if (!isKnown(run, isVolume)) continue;
      std::vector<uint8_t> now(run.before.size());
      if (auto failure = readNow(device, *handles[i], run.offset, now)) return failure;
      if (!isAsLeft(run, now, isVolume)) return changedSince(device, run);
    }
  }
  return std::nullopt;
}

RestoreResult failed(ChangeFailure failure) {
  RestoreResult result;
  result.failure = std::move(failure);
  return result;
}

RestoreResult runOf(std::unique_ptr<LongChange> journal, ImageSource& source,
                    const std::vector<std::shared_ptr<DeviceHandle>>& handles, bool compare,
                    const RestoreObserver& observer) {
  RestoreResult result;
  result.journal = journal->folder();
  ContentWriter content(*journal, source, *handles[journal->origin().device], observer);
  std::optional<ChangeFailure> failure;
  try {
    failure = runSteps(*journal, content, handles, compare, result);
  } catch (const std::exception& error) {  // no memory, or no thread
    failure = {content.name(), error.what(), ""};
  }
  if (failure) result.failure = *failure;
  if (!failure) result.end = endOf(*journal, content);
  if (content.isJournalGone()) result.journal.clear();
  const bool isWhole = result.end == RestoreResult::End::done || result.end == RestoreResult::End::paused;
  if (!isWhole) result.isBlank = content.isBlank();
  result.size = content.position();
  result.isCompared = content.isCompared() && isWhole;
  if (result.end != RestoreResult::End::paused) return result;
  result.devices = identitiesOf(handles);
  result.rest = std::move(journal);
  return result;
}

}  // namespace

RestoreResult restoreVolume(ImageSource& source, const RestorePlan& plan, bool compare,
                            const RestoreObserver& observer) {
  std::unique_ptr<LongChange> journal;
  const ContentOrigin origin = {plan.source, hashOfStart(source), 0, plan.image, plan.between};
  if (auto failure = beginLongChange(plan.structures, origin, plan.backup, journal)) return failed(*std::move(failure));
  std::vector<std::shared_ptr<DeviceHandle>> handles;
  for (const DeviceChange& device : plan.structures.devices) handles.push_back(device.handle);
  return runOf(std::move(journal), source, handles, compare, observer);
}

RestoreResult resumeRestore(std::unique_ptr<LongChange> journal, ImageSource& source,
                            const std::vector<std::shared_ptr<DeviceHandle>>& handles, bool compare,
                            const RestoreObserver& observer) {
  std::optional<ChangeFailure> unusable = requireAsLeft(*journal, handles);
  if (unusable) {
    unusable->reason += "; perhaps another disk has the name now";
  } else if (journal->origin().start != hashOfStart(source)) {
    unusable = ChangeFailure{journal->origin().source, "is not the source that the restore began with", ""};
  } else if (source.facts().isMadeAnew) {
    unusable = startAgain(*journal, source);
  }
  if (unusable) {
    RestoreResult result = failed(*std::move(unusable));
    result.journal = journal->folder();
    return result;
  }
  return runOf(std::move(journal), source, handles, compare, observer);
}

RestoreResult finishRestore(RestoreResult paused, const std::vector<std::shared_ptr<DeviceHandle>>& handles) {
  RestoreResult result = std::move(paused);
  const std::unique_ptr<LongChange> journal = std::move(result.rest);
  auto failure = requireSameDevices(*journal, result, handles);
  if (!failure) failure = writeStructures(*journal, handles, std::nullopt);
  if (!failure) failure = finishJournal(*journal, result);
  result.end = failure ? RestoreResult::End::failed : RestoreResult::End::done;
  if (failure) result.failure = *std::move(failure);
  return result;
}

std::optional<ChangeFailure> abandonRestore(std::unique_ptr<LongChange> journal,
                                            const std::vector<std::shared_ptr<DeviceHandle>>& handles) {
  DiskChange change = journal->structures();
  change.title = "undo of " + change.title;
  for (size_t i = 0; i < change.devices.size(); ++i) {
    DeviceChange& device = change.devices[i];
    device.handle = handles[i];
    const bool isVolume = i == journal->origin().device;
    for (ByteChange& run : device.bytes) {
      std::vector<uint8_t> now(run.before.size());
      if (auto failure = readNow(device, *device.handle, run.offset, now)) return failure;
      if (isKnown(run, isVolume) && !isAsLeft(run, now, isVolume)) return changedSince(device, run);
      run.after = std::exchange(run.before, std::move(now));
    }
  }
  auto failure = applyChange(change);
  if (!failure) journal->remove();
  return failure;
}

}  // namespace vorlix
