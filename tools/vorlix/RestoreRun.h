// SPDX-License-Identifier: Apache-2.0
//
// What a restore does alike whether it begins or goes on: its options, its progress, and how it ends.
#pragma once

#include <Vorlix/Restore.h>
#include <Vorlix/WimVolume.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Backup.h"
#include "Progress.h"
#include "RestorePreparation.h"
#include "RestoreStart.h"

namespace vorlix::tool {

/// The command line.
struct RestoreOptions {
  RestoreRequest request;
  std::string start;  // empty: legacy, and EFI if the volume has boot files for it
  std::string resume;
  bool yes = false;
  bool dryRun = false;
  bool noVerify = false;
  bool json = false;
  ProgressForm progress = ProgressForm::people;
};

/// The name by which people know a journal: that of its folder.
std::string nameOfJournal(const std::string& folder);

/// Where people read. Programs that ask for objects have standard output for themselves.
std::FILE* textOutput(ProgressForm form);

/// Shows both phases of a run, and ends it at a safe place when a signal has come.
class ShownProgress {
 public:
  explicit ShownProgress(ProgressForm form);
  bool operator()(const RestoreProgress& progress);
  void finish() { shown_->finish(); }

 private:
  ProgressForm form_;
  RestoreProgress::Phase phase_;
  std::unique_ptr<Progress> shown_;
};

/// Makes a volume of an image, and shows the progress. Nothing is written to a disk. Throws Failure.
std::unique_ptr<ImageSource> applyImage(const RestoreOptions& options, const ImageFacts& facts,
                                        const WimApplication& application);

/// Opens the devices of a journal, in their order. Throws Failure.
std::vector<std::shared_ptr<DeviceHandle>> openDevices(const LongChange& journal);

/// Throws Failure unless the restore is complete, or paused.
void requireDone(const RestoreResult& result, const std::string& volume, bool isMadeAnew);

/// Does what comes after the content, says what was done, and what a start still needs. The disk must be closed.
/// Throws Failure.
/// @return the exit status.
int complete(const RestoreOptions& options, RestoreResult result, const RestoredVolume& restored);

}  // namespace vorlix::tool
