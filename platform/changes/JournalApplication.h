// SPDX-License-Identifier: Apache-2.0
//
// Carries a journal out through opened devices, forwards or backwards.
#pragma once

#include <Vorlix/platform/DiskChange.h>

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Journal.h"

namespace vorlix {

/// One journal and the devices that it is for. Where a function returns no failure, everything is on the medium, was
/// read back from there, and the journal is finished or removed.
class JournalApplication {
 public:
  /// @param handles  one for each device of the journal
  JournalApplication(Journal& journal, std::vector<DeviceHandle*> handles)
      : journal_(journal), handles_(std::move(handles)) {}

  /// Makes the change if the devices have the bytes from before it. Removes the journal if they do not.
  std::optional<ChangeFailure> run();

  /// Makes the change, whatever part of it stands there already. @param stays  the journal may be another disk's, too
  std::optional<ChangeFailure> finish(bool stays = false);

  /// Takes the change back, whatever part of it stands there.
  std::optional<ChangeFailure> putBack();

  /// What a process that was cut off left on the medium: nothing, a part of the change, or bytes of somebody else.
  enum class Standing { before, mixed, foreign };

  /// Looks at that. @param unit  bytes that are written whole or not at all: a sector's
  std::optional<ChangeFailure> look(Standing& standing, size_t unit = 512) const;

 private:
  using Image = Journal::Image;

  DeviceHandle& handleOf(const JournalRun& run) const;
  ChangeFailure failureAt(const JournalRun& run, const std::string& reason) const;
  std::optional<ChangeFailure> checkBefore() const;
  std::optional<ChangeFailure> put(Image image);
  bool isSyncedBefore(size_t device) const;
  bool isOnMedium(const JournalRun& run, Image image) const;
  std::optional<ChangeFailure> putRun(const JournalRun& run, Image image);
  std::string whatStands() const;
  const char* standingOf(const JournalRun& first) const;

  Journal& journal_;
  std::vector<DeviceHandle*> handles_;
};

}  // namespace vorlix
