// SPDX-License-Identifier: Apache-2.0
/// @file
/// A change whose content is too large to be journalled: a volume that is written from a source. Its journal has the
/// small structures before and after (boot sectors, sector 0), says where the content comes from, and how far it is.
/// docs/journal.md describes the format.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/platform/DiskChange.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

/// A run of bytes of the content that is on the medium.
struct ContentPiece {
  /// How the bytes got there.
  enum class Kind {
    data,
    zeros,
    unused  ///< was not written: the file system does not use it
  };

  Kind kind = Kind::data;  ///< data has a hash
  uint64_t offset = 0;     ///< bytes from the start of the device
  uint64_t length = 0;     ///< bytes
  std::string hash;        ///< of data: SHA-256, hexadecimal; empty if it is not to be compared
};

/// Where the content comes from, and which device it overwrites.
struct ContentOrigin {
  std::string source;   ///< what the user named; absolute path of a file
  std::string start;    ///< SHA-256 of the first bytes of the volume, or of a WIM, to recognise the source
  size_t device = 0;    ///< index of the device among those of the change
  uint32_t image = 0;   ///< which image of a WIM; 0 for other sources
  std::string between;  ///< what is done when the content is complete, before the structures of other devices
};

/// The journal of such a change, locked for this process while the object lives.
class VORLIX_EXPORT LongChange {
 public:
  virtual ~LongChange();

  virtual const std::string& folder() const = 0;    ///< path of the journal
  virtual const ContentOrigin& origin() const = 0;  ///< as the journal has it

  /// The structures, in the order in which they are written when the content is complete. A journal that was read has
  /// no handles in it.
  virtual const DiskChange& structures() const = 0;

  /// What is on the medium, in rising order without gaps from the first byte.
  virtual const std::vector<ContentPiece>& pieces() const = 0;

  /// Returns where the backup of another change goes that is a part of this one: beside the backup of this one.
  virtual ChangeBackup backupOfParts() const = 0;

  /// Records pieces that follow. They must be on the medium, and are synced here.
  virtual std::optional<ChangeFailure> record(const std::vector<ContentPiece>& pieces) = 0;

  /// Forgets all pieces: the content is written anew.
  virtual std::optional<ChangeFailure> restart() = 0;

  /// The change is complete and on the medium: the journal becomes a backup, or is removed. If it cannot become one, it
  /// stays as it was.
  /// @param kept  receives the folder of the backup; empty if there is none.
  virtual std::optional<ChangeFailure> finish(std::string& kept) = 0;

  /// Removes the journal: nothing was written, or all that can be restored is.
  virtual void remove() = 0;
};

/// Begins such a change: writes and syncs the journal. Nothing is written to the devices.
VORLIX_EXPORT std::optional<ChangeFailure> beginLongChange(const DiskChange& structures, const ContentOrigin& origin,
                                                           const ChangeBackup& backup,
                                                           std::unique_ptr<LongChange>& change);

/// Opens the journal of an interrupted one. Null with `failure` if it is damaged, is another kind of journal, or if
/// another process has it.
VORLIX_EXPORT std::unique_ptr<LongChange> openLongChange(const std::string& folder,
                                                         std::optional<ChangeFailure>& failure);

/// Returns the folders of this user's interrupted changes of this kind, oldest first. One that this process has open is
/// not interrupted.
VORLIX_EXPORT std::vector<std::string> interruptedLongChanges();

}  // namespace vorlix
