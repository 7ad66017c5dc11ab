// SPDX-License-Identifier: Apache-2.0
#include "RestoreRun.h"

#include <filesystem>

#include "DeviceChanges.h"
#include "Failure.h"
#include "RestorePreparation.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

std::string howToGoOn(const RestoreResult& result, bool isMadeAnew) {
  const std::string name = nameOfJournal(result.journal);
  return sizeText(result.size) + " of the volume are written" +
         (result.isBlank ? ", and it has no boot sector yet" : "") + "; `vorlix restore --resume " + name +
         (isMadeAnew ? "` applies the image anew and begins again" : "` goes on") + ", `vorlix undo " + name +
         "` gives it up";
}

const char* comparisonText(const RestoreOptions& options, const RestoreResult& result) {
  if (options.noVerify) return "";
  return result.isCompared ? ", read back and compared"
                           : ", read back and compared but for what was written with --no-verify";
}

}  // namespace

std::string nameOfJournal(const std::string& folder) {
  return std::filesystem::path(folder).filename().string();
}

std::FILE* textOutput(ProgressForm form) {
  return form == ProgressForm::json ? stderr : stdout;
}

ShownProgress::ShownProgress(ProgressForm form)
    : form_(form), phase_(RestoreProgress::Phase::writing), shown_(std::make_unique<Progress>(form_, "restoring")) {}

bool ShownProgress::operator()(const RestoreProgress& progress) {
  if (progress.phase != phase_) {
    phase_ = progress.phase;
    shown_->finish();
    shown_ = std::make_unique<Progress>(form_, "comparing");
  }
  shown_->show(progress.done, progress.total);
  return !Interruption::hasCome();
}

std::unique_ptr<ImageSource> applyImage(const RestoreOptions& options, const ImageFacts& facts,
                                        const WimApplication& application) {
  Progress shown(options.progress, "applying");
  WimVolume applied = applyWim(facts, application, [&](uint64_t done, uint64_t total) {
    shown.show(done, total);
    return !Interruption::hasCome();
  });
  shown.finish();
  if (applied.isStopped) throw Failure(application.wim, "stopped");
  if (applied.source == nullptr) throw Failure(applied.failure.subject, applied.failure.reason);
  return std::move(applied.source);
}

void requireDone(const RestoreResult& result, const std::string& volume, bool isMadeAnew) {
  if (result.end == RestoreResult::End::done || result.end == RestoreResult::End::paused) return;
  const std::string goingOn = howToGoOn(result, isMadeAnew);
  if (result.end == RestoreResult::End::cancelled) throw Failure(volume, "stopped", goingOn);
  const ChangeFailure& failure = result.failure;
  if (result.journal.empty()) fail(failure);
  throw Failure(failure.subject, failure.reason, (failure.state.empty() ? "" : failure.state + "; ") + goingOn);
}

std::vector<std::shared_ptr<DeviceHandle>> openDevices(const LongChange& journal) {
  std::vector<std::shared_ptr<DeviceHandle>> handles;
  for (const DeviceChange& device : journal.structures().devices) handles.push_back(openToChange(device.device));
  return handles;
}

int complete(const RestoreOptions& options, RestoreResult result, const RestoredVolume& restored) {
  std::FILE* const output = textOutput(options.progress);
  const std::string volume = restored.disk + "s" + std::to_string(restored.partition);
  EFIResult files = EFIResult::unwanted;
  if (result.end == RestoreResult::End::paused) {
    std::vector<std::shared_ptr<DeviceHandle>> handles;
    try {
      files = putEFIFiles(restored, result.rest->backupOfParts(), output);
      handles = openDevices(*result.rest);
    } catch (const Failure& failure) {
      throw Failure(volume, std::string("not finished: ") + failure.what(), howToGoOn(result, restored.isFromWim));
    }
    result = finishRestore(std::move(result), handles);
    requireDone(result, volume, restored.isFromWim);
  }
  std::fprintf(output, "Restored   %s to %s%s\n", sizeText(result.size).c_str(), printable(volume).c_str(),
               comparisonText(options, result));
  printUndo(result.kept, output);
  return printStart(restored, files, output) ? kDone : kChangeNeeded;
}

}  // namespace vorlix::tool
