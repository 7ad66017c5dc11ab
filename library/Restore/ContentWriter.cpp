// SPDX-License-Identifier: Apache-2.0
#include "ContentWriter.h"

#include <Vorlix/platform/SystemError.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <future>
#include <span>
#include <utility>

#include "foundation/Zeros.h"

namespace vorlix {
namespace {

constexpr size_t kBlank = kSectorSize;                 // of the volume, zero until its structures are written
constexpr uint64_t kCheckpoint = uint64_t{256} << 20;  // written between two syncs of the medium
constexpr size_t kZeros = size_t{1} << 20;
constexpr uint64_t kUninterrupted = uint64_t{64} << 20;  // of zeros or of what is skipped, between two looks for a stop

std::optional<uint64_t> sizeOf(const ImageSource& source) {
  const ImageFacts& facts = source.facts();
  if (facts.size) return facts.size;
  return facts.volume ? std::optional(facts.volume->size()) : std::nullopt;
}

}  // namespace

ContentWriter::ContentWriter(LongChange& journal, ImageSource& source, DeviceHandle& volume,
                             const RestoreObserver& observer)
    : journal_(journal),
      source_(source),
      volume_(volume),
      name_(journal.structures().devices[journal.origin().device].device),
      observer_(observer),
      total_(sizeOf(source).value_or(0)) {
  for (const ByteChange& run : journal.structures().devices[journal.origin().device].bytes) {
    places_.push_back({run.offset, run.after.size()});
  }
}

ChangeFailure ContentWriter::failureAt(uint64_t offset, const std::string& reason) const {
  return {name_, "at byte " + std::to_string(offset) + ": " + reason, ""};
}

ChangeFailure ContentWriter::errorAt(uint64_t offset, ssize_t done) const {
  return failureAt(offset, done < 0 ? SystemError{errno}.reason() : "the volume ends too early");
}

bool ContentWriter::mayGoOn(RestoreProgress::Phase phase, uint64_t done) {
  isCancelled_ = isCancelled_ || !observer_({phase, done, std::max(total_, done)});
  return !isCancelled_;
}

std::optional<ChangeFailure> ContentWriter::write(bool withHashes) {
  if (!journal_.pieces().empty()) {
    position_ = journal_.pieces().back().offset + journal_.pieces().back().length;
  }
  if (position_ == 0) {
    if (auto failure = blank()) return failure;
  } else if (auto failure = skip()) {
    return failure;
  }
  PieceReader reader(source_, places_, withHashes);
  while (mayGoOn(RestoreProgress::Phase::writing, position_)) {
    HashedPiece read = reader.next();
    if (read.piece.kind == ImagePiece::Kind::end) return checkpoint();
    if (read.piece.kind == ImagePiece::Kind::failure) {
      const auto unsynced = checkpoint();
      return unsynced ? unsynced : ChangeFailure{read.piece.failure.subject, read.piece.failure.reason, ""};
    }
    if (auto failure = read.piece.kind == ImagePiece::Kind::zeros ? putLongZeros(read) : put(read)) return failure;
    reader.recycle(std::move(read.bytes));
    if (unsynced_ >= kCheckpoint) {
      if (auto failure = checkpoint()) return failure;
    }
  }
  return checkpoint();
}

// Goes to the position in the source, which may have to be unpacked up to there.
std::optional<ChangeFailure> ContentWriter::skip() {
  for (uint64_t at = 0; at < position_ && mayGoOn(RestoreProgress::Phase::writing, at);) {
    at += std::min(position_ - at, kUninterrupted);
    if (const auto failure = source_.moveTo(at)) return ChangeFailure{failure->subject, failure->reason, ""};
  }
  return std::nullopt;
}

// Until the end, the volume has no boot sector, so that nothing takes it for whole.
std::optional<ChangeFailure> ContentWriter::blank() {
  const std::vector<uint8_t> zeros(kBlank);
  const ssize_t done = volume_.writeAt(zeros.data(), zeros.size(), 0);
  if (done == static_cast<ssize_t>(zeros.size())) {
    return volume_.sync() == 0 ? std::nullopt : std::optional(errorAt(0, -1));
  }
  ChangeFailure failure = errorAt(0, done);
  if (isAsBefore()) {  // nothing was written, so that there is nothing to go on with
    journal_.remove();
    isJournalGone_ = true;
    failure.state = kNothingWritten;
  }
  return failure;
}

bool ContentWriter::isAsBefore() {
  const std::vector<ByteChange>& runs = journal_.structures().devices[journal_.origin().device].bytes;
  const auto first = std::find_if(runs.begin(), runs.end(), [](const ByteChange& run) { return run.offset == 0; });
  if (first == runs.end() || first->before.size() < kBlank) return false;
  std::vector<uint8_t> now(kBlank);
  return volume_.readMediumAt(now.data(), now.size(), 0) == static_cast<ssize_t>(now.size()) &&
         std::equal(now.begin(), now.end(), first->before.begin());
}

bool ContentWriter::isBlank() {
  std::vector<uint8_t> now(kBlank);
  return volume_.readAt(now.data(), now.size(), 0) == static_cast<ssize_t>(now.size()) && areZeros(now);
}

std::optional<ChangeFailure> ContentWriter::put(const HashedPiece& read) {
  const ImagePiece& piece = read.piece;
  ContentPiece written = {ContentPiece::Kind::data, piece.offset, piece.length, read.hash};
  if (piece.kind == ImagePiece::Kind::data) {
    const auto length = static_cast<size_t>(piece.length);
    const ssize_t done = volume_.writeAt(read.bytes.data(), length, piece.offset);
    if (done != static_cast<ssize_t>(length)) return errorAt(piece.offset, done);
    unsynced_ += piece.length;
  } else if (piece.kind == ImagePiece::Kind::zeros) {
    written.kind = ContentPiece::Kind::zeros;
    if (auto failure = putZeros(piece)) return failure;
  } else {
    written.kind = ContentPiece::Kind::unused;
  }
  fresh_.push_back(std::move(written));
  position_ = piece.offset + piece.length;
  return std::nullopt;
}

// A hole of a sparse source can be as long as the disk, and the disk has to be read there.
std::optional<ChangeFailure> ContentWriter::putLongZeros(const HashedPiece& read) {
  const uint64_t end = read.piece.offset + read.piece.length;
  HashedPiece part = {read.piece, {}, ""};
  while (part.piece.offset < end) {
    const uint64_t hole = dataOrEnd(part.piece.offset, end) - part.piece.offset;  // is zeros already
    part.piece.length = hole != 0 ? hole : std::min(kUninterrupted, end - part.piece.offset);
    if (auto failure = put(part)) return failure;
    part.piece.offset += part.piece.length;
    if (part.piece.offset < end && !mayGoOn(RestoreProgress::Phase::writing, position_)) break;
  }
  return std::nullopt;
}

// Writes only where there is something else, so that a sparse image file stays sparse.
std::optional<ChangeFailure> ContentWriter::putZeros(const ImagePiece& piece) {
  std::vector<uint8_t> bytes;
  std::vector<uint8_t> zeros;
  for (uint64_t at = piece.offset; at < piece.offset + piece.length;) {
    at = dataOrEnd(at, piece.offset + piece.length);
    if (at == piece.offset + piece.length) break;
    bytes.resize(kZeros);
    const auto length = static_cast<size_t>(std::min<uint64_t>(kZeros, piece.offset + piece.length - at));
    const ssize_t got = volume_.readAt(bytes.data(), length, at);
    if (got != static_cast<ssize_t>(length)) return errorAt(at, got);
    if (!areZeros(std::span(bytes).first(length))) {
      zeros.resize(kZeros);
      const ssize_t done = volume_.writeAt(zeros.data(), length, at);
      if (done != static_cast<ssize_t>(length)) return errorAt(at, done);
      unsynced_ += length;
    }
    at += length;
  }
  return std::nullopt;
}

// Where the target stores something, at or behind `at`, or `end`. What lies between is zeros.
uint64_t ContentWriter::dataOrEnd(uint64_t at, uint64_t end) {
  const auto data = volume_.dataFrom(at);
  if (!data) return at;
  return data->size == 0 ? end : std::clamp(data->offset, at, end);
}

// What was written so far is on the medium, and the journal says so.
std::optional<ChangeFailure> ContentWriter::checkpoint() {
  if (fresh_.empty()) return std::nullopt;
  if (volume_.sync() != 0) return errorAt(position_, -1);
  auto failure = journal_.record(fresh_);
  if (failure) {
    failure->state = "";
    return failure;
  }
  fresh_.clear();
  unsynced_ = 0;
  return std::nullopt;
}

// One piece is hashed while the next is read. Pieces of an earlier run that did not compare have no hashes.
std::optional<ChangeFailure> ContentWriter::compare() {
  std::array<std::vector<uint8_t>, 2> buffers = {std::vector<uint8_t>(kLargestPiece),
                                                 std::vector<uint8_t>(kLargestPiece)};
  PieceHash hash;
  uint64_t checkedPlace = 0;
  std::future<bool> check;
  const auto finishCheck = [&]() -> std::optional<ChangeFailure> {
    if (!check.valid() || check.get()) return std::nullopt;
    return failureAt(checkedPlace, "reads back differently from what was written");
  };
  isCompared_ = true;
  for (const ContentPiece& piece : journal_.pieces()) {
    if (piece.kind == ContentPiece::Kind::unused) continue;
    if (piece.kind == ContentPiece::Kind::data && piece.hash.empty()) {
      isCompared_ = false;
      continue;
    }
    for (uint64_t at = piece.offset; at < piece.offset + piece.length;) {
      if (!mayGoOn(RestoreProgress::Phase::comparing, at)) return std::nullopt;
      if (piece.kind == ContentPiece::Kind::zeros) {
        at = dataOrEnd(at, piece.offset + piece.length);
        if (at == piece.offset + piece.length) break;
      }
      std::swap(buffers[0], buffers[1]);  // the check has a span of the other one
      const auto length = static_cast<size_t>(std::min<uint64_t>(kLargestPiece, piece.offset + piece.length - at));
      const std::span<uint8_t> bytes(buffers[0].data(), length);
      const ssize_t got = volume_.readMediumAt(bytes.data(), length, at);
      const auto unreadable = got != static_cast<ssize_t>(length) ? std::optional(errorAt(at, got)) : std::nullopt;
      if (auto failure = finishCheck()) return failure;
      if (unreadable) return unreadable;
      checkedPlace = at;
      check = std::async(std::launch::async, [this, bytes, at, &piece, &hash] {
        blankOut(bytes, at, places_);  // an interrupted run may have written a structure there already
        return piece.kind == ContentPiece::Kind::zeros ? areZeros(bytes) : hash.of(bytes) == piece.hash;
      });
      at += length;
    }
  }
  return finishCheck();
}

}  // namespace vorlix
