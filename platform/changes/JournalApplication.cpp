// SPDX-License-Identifier: Apache-2.0
#include "JournalApplication.h"

#include <Vorlix/platform/SystemError.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vorlix {
namespace {

using Bytes = std::vector<uint8_t>;

std::string reasonOf(ssize_t done) {
  return done < 0 ? SystemError{errno}.reason() : "the device ends too early";
}

// A run of bytes on the medium. False with `reason` set where it cannot be read whole.
bool readRun(DeviceHandle& handle, const JournalRun& run, Bytes& bytes, std::string& reason) {
  bytes.resize(static_cast<size_t>(run.length));
  const ssize_t done = handle.readMediumAt(bytes.data(), bytes.size(), run.offset);
  if (done == static_cast<ssize_t>(bytes.size())) return true;
  reason = reasonOf(done);
  return false;
}

}  // namespace

std::optional<ChangeFailure> JournalApplication::run() {
  if (auto failure = checkBefore()) {
    journal_.remove();
    return failure;
  }
  return finish();
}

std::optional<ChangeFailure> JournalApplication::finish(bool stays) {
  auto failure = put(Image::after);
  if (!failure) return stays ? std::nullopt : journal_.finish();
  // A write may end anywhere, so that each byte is looked at by itself.
  Standing standing = Standing::mixed;
  const bool isForeign = !look(standing, 1) && standing == Standing::foreign;
  if (!isForeign && !put(Image::before)) {
    if (!stays) journal_.remove();
    failure->state = kPutBack;
    return failure;
  }
  failure->state = whatStands() + "; ";
  failure->state += isForeign ? "somebody else wrote there meanwhile, so nothing was put back; the change is kept in "
                              : "the next command on this disk finishes the change, which is kept in ";
  failure->state += journal_.folder();
  return failure;
}

std::optional<ChangeFailure> JournalApplication::putBack() {
  auto failure = put(Image::before);
  if (failure) {
    failure->state = whatStands() + "; the change is kept in " + journal_.folder();
  } else {
    journal_.remove();
  }
  return failure;
}

std::optional<ChangeFailure> JournalApplication::look(Standing& standing, size_t unit) const {
  standing = Standing::before;
  for (const JournalRun& run : journal_.runs()) {
    Bytes before;
    Bytes after;
    Bytes now;
    if (auto failure = journal_.read(run, Image::before, before)) return failure;
    if (auto failure = journal_.read(run, Image::after, after)) return failure;
    std::string reason;
    if (!readRun(handleOf(run), run, now, reason)) return failureAt(run, reason);
    size_t length = 0;
    for (size_t at = 0; at < now.size(); at += length) {
      // As far as the sector goes that it lies in, which a run may begin or end within.
      length = std::min(unit - static_cast<size_t>((run.offset + at) % unit), now.size() - at);
      if (std::memcmp(now.data() + at, before.data() + at, length) == 0) continue;
      if (std::memcmp(now.data() + at, after.data() + at, length) != 0) {
        standing = Standing::foreign;
        return std::nullopt;
      }
      standing = Standing::mixed;
    }
  }
  return std::nullopt;
}

DeviceHandle& JournalApplication::handleOf(const JournalRun& run) const {
  return *handles_[run.device];
}

ChangeFailure JournalApplication::failureAt(const JournalRun& run, const std::string& reason) const {
  return {journal_.devices()[run.device].name, run.reason + ": " + reason, kNothingWritten};
}

std::optional<ChangeFailure> JournalApplication::checkBefore() const {
  for (const JournalRun& run : journal_.runs()) {
    Bytes before;
    Bytes now;
    if (auto failure = journal_.read(run, Image::before, before)) return failure;
    std::string reason;
    if (!readRun(handleOf(run), run, now, reason)) return failureAt(run, reason);
    if (now != before) return failureAt(run, "somebody else changed it since it was looked at");
  }
  return std::nullopt;
}

// Writes one image of all runs, brings it to the medium and reads it back from there.
std::optional<ChangeFailure> JournalApplication::put(Image image) {
  std::optional<ChangeFailure> failure;
  for (const JournalRun& run : journal_.runs()) {
    // A medium that refused a run refuses to have it put back as well, and need not: it is as it was.
    if (image == Image::before && isOnMedium(run, image)) continue;
    if ((failure = putRun(run, image))) break;
  }
  // Also after a failure: what was written so far may as well be there.
  for (size_t i = 0; i < handles_.size(); ++i) {
    if (isSyncedBefore(i) || handles_[i]->sync() == 0 || failure) continue;
    failure = ChangeFailure{journal_.devices()[i].name,
                            "what was written is not on the medium: " + SystemError{errno}.reason(), ""};
  }
  for (auto run = journal_.runs().begin(); !failure && run != journal_.runs().end(); ++run) {
    Bytes wanted;
    Bytes now;
    std::string reason;
    failure = journal_.read(*run, image, wanted);
    if (failure) break;
    if (!readRun(handleOf(*run), *run, now, reason)) {
      failure = failureAt(*run, "written, but cannot be read back: " + reason);
    } else if (now != wanted) {
      failure = failureAt(*run, "reads back differently from what was written");
    }
  }
  return failure;
}

// Whether the sync of an earlier device was one of this device, too.
bool JournalApplication::isSyncedBefore(size_t device) const {
  const auto begin = handles_.begin();
  return std::any_of(begin, begin + static_cast<std::ptrdiff_t>(device),
                     [&](const DeviceHandle* earlier) { return handles_[device]->isSyncedWith(*earlier); });
}

bool JournalApplication::isOnMedium(const JournalRun& run, Image image) const {
  Bytes wanted;
  Bytes now;
  std::string reason;
  return !journal_.read(run, image, wanted) && readRun(handleOf(run), run, now, reason) && now == wanted;
}

std::optional<ChangeFailure> JournalApplication::putRun(const JournalRun& run, Image image) {
  Bytes bytes;
  if (auto failure = journal_.read(run, image, bytes)) return failure;
  const ssize_t done = handleOf(run).writeAt(bytes.data(), bytes.size(), run.offset);
  if (done == static_cast<ssize_t>(bytes.size())) return std::nullopt;
  return failureAt(run, done < 0 ? SystemError{errno}.reason() : "only a part of it could be written");
}

// Of each run with a reason of its own whether it is on the medium.
std::string JournalApplication::whatStands() const {
  std::string text;
  const JournalRun* previous = nullptr;
  for (const JournalRun& run : journal_.runs()) {
    const bool isSame = previous != nullptr && previous->reason == run.reason && previous->device == run.device;
    previous = &run;
    if (isSame) continue;
    text += (text.empty() ? "" : ", ") + run.reason + " " + standingOf(run);
  }
  return text;
}

// All runs that share the reason of this one.
const char* JournalApplication::standingOf(const JournalRun& first) const {
  bool anyBefore = false;
  bool anyAfter = false;
  for (const JournalRun& run : journal_.runs()) {
    if (run.reason != first.reason || run.device != first.device) continue;
    Bytes before;
    Bytes after;
    Bytes now;
    std::string reason;
    if (!readRun(handleOf(run), run, now, reason)) return "cannot be read";
    if (journal_.read(run, Image::before, before) || journal_.read(run, Image::after, after)) return "is not known";
    const bool isBefore = now == before;
    const bool isAfter = now == after;
    if (!isBefore && !isAfter) return "is written in part";
    anyBefore |= isBefore && !isAfter;
    anyAfter |= isAfter && !isBefore;
  }
  if (anyBefore && anyAfter) return "is written in part";
  return anyAfter ? "is written" : "is not written";
}

}  // namespace vorlix
