// SPDX-License-Identifier: Apache-2.0
//
// Writes the content of a volume from a source, piece by piece, and reads it back.
#pragma once

#include <Vorlix/Restore.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Pieces.h"

namespace vorlix {

/// One run over the content of a restore, recorded in the journal. The places of the structures are left blank.
class ContentWriter {
 public:
  /// All of them must live as long as this.
  ContentWriter(LongChange& journal, ImageSource& source, DeviceHandle& volume, const RestoreObserver& observer);

  /// Writes what follows the last recorded piece. @param withHashes  whether compare() is to come.
  std::optional<ChangeFailure> write(bool withHashes);

  /// Reads all recorded pieces back.
  std::optional<ChangeFailure> compare();

  /// Whether the volume's first sector is zeros.
  bool isBlank();

  const std::string& name() const { return name_; }      ///< of the volume, for people
  uint64_t position() const { return position_; }        ///< bytes of the volume that were written
  bool isCancelled() const { return isCancelled_; }      ///< the observer has said so
  bool isJournalGone() const { return isJournalGone_; }  ///< nothing was written, so the journal was removed
  bool isCompared() const { return isCompared_; }        ///< compare() could compare all pieces

 private:
  ChangeFailure failureAt(uint64_t offset, const std::string& reason) const;
  ChangeFailure errorAt(uint64_t offset, ssize_t done) const;
  bool mayGoOn(RestoreProgress::Phase phase, uint64_t done);
  std::optional<ChangeFailure> skip();
  std::optional<ChangeFailure> blank();
  bool isAsBefore();
  std::optional<ChangeFailure> put(const HashedPiece& read);
  std::optional<ChangeFailure> putLongZeros(const HashedPiece& read);
  std::optional<ChangeFailure> putZeros(const ImagePiece& piece);
  uint64_t dataOrEnd(uint64_t at, uint64_t end);
  std::optional<ChangeFailure> checkpoint();

  LongChange& journal_;
  ImageSource& source_;
  DeviceHandle& volume_;
  std::string name_;
  const RestoreObserver& observer_;
  uint64_t total_;
  uint64_t position_ = 0;
  uint64_t unsynced_ = 0;
  std::vector<ImageRange> places_;   // of the structures on the volume, which the content leaves blank
  std::vector<ContentPiece> fresh_;  // written, but not recorded
  bool isCancelled_ = false;
  bool isJournalGone_ = false;
  bool isCompared_ = false;
};

}  // namespace vorlix
