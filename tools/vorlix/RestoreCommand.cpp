// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/Restore.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Arbitration.h"
#include "Backup.h"
#include "Commands.h"
#include "DeviceChanges.h"
#include "Failure.h"
#include "Identity.h"
#include "Json.h"
#include "LibraryLog.h"
#include "Progress.h"
#include "RestorePreparation.h"
#include "RestoreStart.h"
#include "RestoreView.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

namespace fs = std::filesystem;

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

std::string nameOfJournal(const std::string& folder) {
  return fs::path(folder).filename().string();
}

// Where people read. Programs that ask for objects have standard output for themselves.
std::FILE* textOutput(ProgressForm form) {
  return form == ProgressForm::json ? stderr : stdout;
}

std::string slotText(const MBRPartitionEntry& slot) {
  if (slot.type == 0) return "unused";
  return std::string((slot.flag & kActiveFlag) != 0 ? "active, " : "") + mbrTypeName(slot.type) + ", sectors " +
         std::to_string(slot.lba) + " to " + std::to_string(uint64_t{slot.lba} + slot.size - 1);
}

void printPlan(const RestoreOptions& options, const RestorePreparation& prepared) {
  const ImageFacts& facts = prepared.source->facts();
  const std::string format = facts.volume ? std::string(", ") + nameOf(facts.volume->format) : "";
  const std::string size = facts.size ? ", " + shortSizeText(*facts.size) : "";
  const std::string image = prepared.image ? ", " + imageText(*prepared.image) : "";
  std::fprintf(textOutput(options.progress), "From       %s (%s%s%s%s)\n", printable(options.request.source).c_str(),
               printable(facts.description).c_str(), format.c_str(), size.c_str(), printable(image).c_str());
  if (prepared.image) {
    std::fprintf(textOutput(options.progress),
                 "Made in    %s, as an NTFS volume in a file that goes with this command\n",
                 printable(options.request.scratch).c_str());
  }
  std::fprintf(textOutput(options.progress), "To         %s, GPT entry %u \"%s\", %s\n",
               printable(prepared.volume).c_str(), options.request.partition, printable(prepared.entryName).c_str(),
               shortSizeText(prepared.volumeSize).c_str());
  std::fprintf(textOutput(options.progress), "Lost       what is there now: %s\n", printable(prepared.present).c_str());
  if (!facts.isVerified && !prepared.image) {
    std::fprintf(
        textOutput(options.progress),
        "Note       the source has no block map, so damage that its format does not notice is restored, too\n");
  }
  if (!prepared.efiVolume.empty()) {
    std::fprintf(textOutput(options.progress), "EFI        boot files of the volume and a store go to %s%s\n",
                 printable(prepared.efiVolume).c_str(),
                 options.request.efiFiles == EFIFiles::required ? "" : ", if the volume has boot files for EFI");
  }
  if (!options.request.isLegacy) {
    std::fprintf(textOutput(options.progress), "MBR        stays as it is\n");
    return;
  }
  if (!prepared.changesMBR) std::fprintf(textOutput(options.progress), "MBR        right already\n");
  for (size_t slot = 0; prepared.changesMBR && slot < kSlotCount; ++slot) {
    const std::string now = slotText(prepared.mbr.disk.mbr.parts[slot]);
    const std::string then = slotText(prepared.mbr.table.parts[slot]);
    if (now == then) continue;
    std::fprintf(textOutput(options.progress), "MBR slot %zu %s\n           becomes %s\n", slot + 1, now.c_str(),
                 then.c_str());
  }
  if (prepared.mbr.bootCode == BootCodeOrigin::own) {
    std::fprintf(textOutput(options.progress),
                 "Boot code  sector 0 has none and gets our own, which starts the active slot\n");
  }
}

// Asks on the terminal. Without one, only --yes answers.
void requireConsent(const RestoreOptions& options, const std::string& question) {
  if (options.yes) return;
  if (isatty(STDIN_FILENO) != 1 || options.request.source == kStandardInput) {
    throw Failure(options.request.disk.empty() ? options.resume : options.request.disk,
                  "nobody can be asked here; --yes answers in advance");
  }
  std::printf("%s [y/N] ", question.c_str());
  std::fflush(stdout);
  char answer[16] = {};
  const bool isYes = std::fgets(answer, sizeof answer, stdin) != nullptr && (answer[0] == 'y' || answer[0] == 'Y');
  if (!isYes) throw Failure(options.request.disk.empty() ? options.resume : options.request.disk, "not confirmed");
}

// Shows both phases of a run, and ends it at a safe place when a signal has come.
class ShownProgress {
 public:
  explicit ShownProgress(ProgressForm form) : form_(form), phase_(RestoreProgress::Phase::writing) {
    shown_ = std::make_unique<Progress>(form_, "restoring");
  }

  bool operator()(const RestoreProgress& progress) {
    if (progress.phase != phase_) {
      phase_ = progress.phase;
      shown_->finish();
      shown_ = std::make_unique<Progress>(form_, "comparing");
    }
    shown_->show(progress.done, progress.total);
    return !Interruption::hasCome();
  }

  void finish() { shown_->finish(); }

 private:
  ProgressForm form_;
  RestoreProgress::Phase phase_;
  std::unique_ptr<Progress> shown_;
};

std::string howToGoOn(const RestoreResult& result, bool isMadeAnew) {
  const std::string name = nameOfJournal(result.journal);
  return sizeText(result.size) + " of the volume are written" +
         (result.isBlank ? ", and it has no boot sector yet" : "") + "; `vorlix restore --resume " + name +
         (isMadeAnew ? "` applies the image anew and begins again" : "` goes on") + ", `vorlix undo " + name +
         "` gives it up";
}

// Makes a volume of an image, and shows the progress. Nothing is written to a disk. Throws Failure.
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

// The WIM of an interrupted restore as a volume for the same slice.
std::unique_ptr<ImageSource> applyAgain(const RestoreOptions& options, const std::string& wim, const ImageFacts& facts,
                                        uint32_t index, DeviceHandle& volume) {
  const WimFacts::Image image = imageOf(wim, facts, index);
  const auto size = volume.size();
  const auto blockSize = volume.blockSize();
  const auto identity = volume.identity();
  if (!size || !blockSize || !identity || !identity->offset) throw Failure(wim, "nobody knows where the slice is");
  const std::string scratch = scratchFor(options.request, image, *size);
  std::fprintf(textOutput(options.progress),
               "From       %s (%s), from the beginning: the image is applied anew, in %s\n", printable(wim).c_str(),
               printable(imageText(image)).c_str(), printable(scratch).c_str());
  std::fflush(stdout);
  return applyImage(options, facts, {wim, index, {*size, *blockSize, *identity->offset / *blockSize}, scratch});
}

// Throws Failure unless the restore is complete, or paused.
void requireDone(const RestoreResult& result, const std::string& volume, bool isMadeAnew) {
  if (result.end == RestoreResult::End::done || result.end == RestoreResult::End::paused) return;
  const std::string goingOn = howToGoOn(result, isMadeAnew);
  if (result.end == RestoreResult::End::cancelled) throw Failure(volume, "stopped", goingOn);
  const ChangeFailure& failure = result.failure;
  if (result.journal.empty()) fail(failure);
  throw Failure(failure.subject, failure.reason, (failure.state.empty() ? "" : failure.state + "; ") + goingOn);
}

std::string folderOfInterrupted(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  std::vector<std::string> found;
  for (const std::string& folder : interruptedLongChanges()) {
    if (nameOfJournal(folder).starts_with(name)) found.push_back(folder);
  }
  if (found.empty()) throw Failure(name, "no interrupted restore of that name");
  if (found.size() > 1) throw Failure(name, "several interrupted restores begin with that name");
  return found.front();
}

const char* comparisonText(const RestoreOptions& options, const RestoreResult& result) {
  if (options.noVerify) return "";
  return result.isCompared ? ", read back and compared"
                           : ", read back and compared but for what was written with --no-verify";
}

std::unique_ptr<LongChange> openJournal(const std::string& folder) {
  std::optional<ChangeFailure> failure;
  auto journal = openLongChange(folder, failure);
  if (failure) fail(*failure);
  return journal;
}

using Handles = std::vector<std::shared_ptr<DeviceHandle>>;
using Identities = std::vector<std::optional<DeviceIdentity>>;

// Opens the devices of a journal, in their order.
Handles openDevices(const LongChange& journal) {
  Handles handles;
  for (const DeviceChange& device : journal.structures().devices) handles.push_back(openToChange(device.device));
  return handles;
}

Identities identitiesOf(const Handles& handles) {
  Identities identities;
  for (const auto& handle : handles) identities.push_back(handle->identity());
  return identities;
}

// Does what comes after the content, says what was done, and what a start still needs. The disk must be closed.
// @param disks  what the devices of the restore were: somebody may exchange a disk while it is closed
// @return the exit status.
int complete(const RestoreOptions& options, RestoreResult result, const Identities& disks,
             const RestoredVolume& restored, const BackupChoice& choice) {
  std::FILE* const output = textOutput(options.progress);
  const std::string volume = sliceNameOf(restored.disk, restored.partition);
  bool hasEFIFiles = false;
  if (result.end == RestoreResult::End::paused) {
    Handles handles;
    try {
      hasEFIFiles = restored.files != EFIFiles::none && putEFIFiles(restored, choice, output);
      handles = openDevices(*result.rest);
      if (identitiesOf(handles) != disks) throw Failure(restored.disk, "is another disk than before");
    } catch (const Failure& failure) {
      throw Failure(volume, std::string("not finished: ") + failure.what(), howToGoOn(result, restored.isFromWim));
    }
    result = finishRestore(std::move(result), handles);
    requireDone(result, volume, restored.isFromWim);
  }
  std::fprintf(output, "Restored   %s to %s%s\n", sizeText(result.size).c_str(), printable(volume).c_str(),
               comparisonText(options, result));
  printUndo(result.kept, output);
  const std::optional<StartWay> way = wayOf(restored, hasEFIFiles);
  return !way || printStart(restored, *way, output) ? kDone : kChangeNeeded;
}

// What the journal says of the volume and its start. Without its command line, a legacy start is known by sector 0.
RestoredVolume restoredVolumeOf(const LongChange& journal) {
  const std::vector<DeviceChange>& devices = journal.structures().devices;
  const Identity identity = identify(devices[journal.origin().device].device);
  return {identity.wholeDisk, static_cast<uint32_t>(identity.partition), devices.size() > 1,
          efiFilesOf(journal.origin().between), false};
}

// @param choice  what the command line says of backups of start files; the journal has its own
int resume(const RestoreOptions& options, const std::string& folder, const BackupChoice& choice) {
  auto journal = openJournal(folder);
  const DiskChange& structures = journal->structures();
  const std::string volume = structures.devices[journal->origin().device].device;
  RestoredVolume restored = restoredVolumeOf(*journal);
  if (!options.start.empty() || !options.request.disk.empty()) restored.isLegacy = options.request.isLegacy;
  if (options.request.efiFiles == EFIFiles::none) restored.files = EFIFiles::none;
  auto handles = openDevices(*journal);
  ImageFailure unreadable;
  const std::string path = options.request.source.empty() ? journal->origin().source : options.request.source;
  auto source = openImageSource(path, {}, unreadable);
  if (!source) throw Failure(unreadable.subject, unreadable.reason, "the restore can go on once the source is there");
  std::fprintf(textOutput(options.progress), "Going on   %s\n", printable(structures.title).c_str());
  std::fflush(stdout);
  const Interruption interruption;
  const uint32_t image = journal->origin().image;
  if (image != 0 && source->facts().kind == ImageKind::wim) {
    source = applyAgain(options, path, source->facts(), image, *handles[journal->origin().device]);
  }
  ShownProgress progress(options.progress);
  RestoreResult result = resumeRestore(std::move(journal), *source, handles, !options.noVerify, std::ref(progress));
  progress.finish();
  restored.isFromWim = source->facts().isMadeAnew;
  requireDone(result, volume, restored.isFromWim);
  const Identities disks = identitiesOf(handles);
  handles.clear();
  return complete(options, std::move(result), disks, restored, choice);
}

// The interrupted restore of the same slice. Throws Failure if that has another source.
std::optional<std::string> interruptedRestoreOf(const RestoreRequest& request, const std::string& volume) {
  for (const std::string& folder : interruptedLongChanges()) {
    std::optional<ChangeFailure> failure;
    const auto journal = openLongChange(folder, failure);
    if (!journal) continue;  // of a restore that is running; if it is on this disk, opening the disk says so
    const std::string& device = journal->structures().devices[journal->origin().device].device;
    if (absoluteSource(device) != absoluteSource(volume) && device != volume) continue;
    const uint32_t image = journal->origin().image;
    const bool isSameImage = request.index == 0 || request.index == image;
    if (isSameImage && journal->origin().source == absoluteSource(request.source)) return folder;
    const std::string name = nameOfJournal(folder);
    const std::string what = journal->origin().source + (image == 0 ? "" : ", image " + std::to_string(image) + ",");
    throw Failure(volume, "a restore of " + what + " was interrupted; `vorlix restore --resume " + name +
                              "` goes on, `vorlix undo " + name + "` gives it up");
  }
  return std::nullopt;
}

// What the plan has shown.
struct ShownSource {
  ImageFacts facts;
  std::optional<WimFacts::Image> image;
  NTFSPlace place;
};

// Opens the disk for writing. A WIM is applied before, while the disk is free for others.
RestorePreparation prepareToWrite(RestoreOptions& options, const ShownSource& shown) {
  RestoreRequest& request = options.request;
  request.writes = true;
  if (!shown.image) return prepareRestore(request);
  auto applied = applyImage(options, shown.facts, {request.source, shown.image->index, shown.place, request.scratch});
  RestorePreparation prepared = prepareRestore(request, std::move(applied));
  if (prepared.place != shown.place) throw Failure(prepared.volume, "was changed while the image was applied");
  return prepared;
}

int restore(RestoreOptions options, const BackupChoice& choice) {
  const LibraryLog log;  // look-ups write to it
  RestoreRequest& request = options.request;
  const std::string volume = sliceNameOf(bsdNameOf(request.disk), request.partition);
  if (const auto folder = interruptedRestoreOf(request, volume)) {
    if (options.json) {
      Json::object({{"version", kJsonVersion}, {"resumes", nameOfJournal(*folder)}}).print();
      return kChangeNeeded;
    }
    if (options.dryRun) {
      std::fprintf(textOutput(options.progress), "Dry run: `vorlix restore --resume %s` goes on with this restore.\n",
                   nameOfJournal(*folder).c_str());
      return kChangeNeeded;
    }
    requireConsent(options, "This restore was interrupted. Go on?");
    return resume(options, *folder, choice);
  }
  // Standard input can be read once only, so the disk is opened for writing at once.
  const bool isStream = request.source == kStandardInput;
  if (isStream && !options.dryRun) requireConsent(options, "");
  request.writes = isStream && !options.dryRun;
  RestorePreparation prepared = prepareRestore(request);
  if (prepared.image) request.scratch = scratchFor(request, *prepared.image, prepared.volumeSize);
  if (options.json) {
    printRestorePlanJson(request, prepared);
    return kChangeNeeded;
  }
  printPlan(options, prepared);
  if (options.dryRun) {
    std::fprintf(textOutput(options.progress), "Dry run: nothing is written.\n");
    return kChangeNeeded;
  }
  std::fflush(stdout);
  const ShownSource shown = {prepared.source->facts(), prepared.image, prepared.place};
  if (!isStream) {
    prepared = {};  // closes the disk while the user thinks
    requireConsent(options, "Overwrite " + printable(volume) + "?");
  }
  const Interruption interruption;
  if (!isStream) prepared = prepareToWrite(options, shown);
  prepared.plan.backup = changeBackup(choice);
  ShownProgress progress(options.progress);
  RestoreResult result = restoreVolume(*prepared.source, prepared.plan, !options.noVerify, std::ref(progress));
  progress.finish();
  requireDone(result, prepared.volume, prepared.source->facts().isMadeAnew);
  Identities disks;
  for (const DeviceChange& device : prepared.plan.structures.devices) disks.push_back(device.handle->identity());
  prepared = {};  // closes the disk, which is looked at anew
  const EFIFiles files = result.rest ? request.efiFiles : EFIFiles::none;
  return complete(options, std::move(result), disks,
                  {request.disk, request.partition, request.isLegacy, files, shown.image.has_value()}, choice);
}

}  // namespace

void addRestoreCommand(Command& top, int& status) {
  const auto options = std::make_shared<RestoreOptions>();
  RestoreRequest& request = options->request;
  Command command = top.addCommand("restore", "Restore a volume from an image or a backup, and make the disk start it");
  command
      .addOption("SOURCE", request.source,
                 "Image file, plain or packed (gz, xz, zst, bz2, zip), ntfsclone image, WIM or ESD, folder of a "
                 "backup, slice, or - for standard input")
      .completes(ValueKind::device);
  command.addOption("DISK", request.disk, "Whole disk or disk-image file").completes(ValueKind::disk);
  command.addOption("--partition", request.partition, "GPT entry of the volume to overwrite")
      .completes(ValueKind::partition)
      .within(1, 128);
  command
      .addOption("--start", options->start,
                 "legacy: write the MBR for a start by a BIOS; efi: put the volume's boot files and a store on the EFI "
                 "System Partition; both; none (default: legacy, and efi if the volume has boot files for it)")
      .oneOf({"legacy", "efi", "both", "none"});
  command.addOption("--index", request.index, "Image of a WIM; needed if it has several")
      .completes(ValueKind::text)
      .within(1, 65535);
  command
      .addOption("--scratch", request.scratch,
                 "Folder where the volume of a WIM is made first (default: $TMPDIR, else /var/tmp)")
      .completes(ValueKind::folder);
  command.addOption("--boot-code", request.bootCode, "File with MBR boot code (default: the disk's, or our own)")
      .completes(ValueKind::file);
  const Option resuming =
      command.addOption("--resume", options->resume, "Go on with an interrupted restore; SOURCE if it has moved")
          .completes(ValueKind::restore);
  command.addFlag("--yes", options->yes, "Do not ask");
  const Option dryRun =
      command.addFlag("--dry-run", options->dryRun, "Check everything and show the plan; write nothing");
  command.addFlag("--json", options->json, "Show it as JSON").needs(dryRun).excludes(resuming);
  command.addFlag("--no-verify", options->noVerify, "Do not read the content back");
  command.addFlag("--force", request.force, "Go on with a damaged GPT, another type of partition or an odd source");
  addProgressOption(command, options->progress);
  const auto backup = addBackupOptions(command);
  command.setFooter(
      "Exit status: 0 the disk starts as far as can be told (with --start none: the volume is restored),\n"
      "1 restored, but something that a start needs is missing, 2 error.");
  command.setExamples({"vorlix restore windows.img.xz mac.img --partition 3 --dry-run",
                       "vorlix restore saved /dev/sda --partition 4 --yes"});
  command.setAction([options, backup, resuming, &status] {
    RestoreRequest& wanted = options->request;
    const std::string& start = options->start;
    wanted.isLegacy = start != "efi" && start != "none";
    wanted.efiFiles = start == "efi" || start == "both" ? EFIFiles::required
                      : start.empty()                   ? EFIFiles::ifThere
                                                        : EFIFiles::none;
    if (resuming.isGiven()) {
      const LibraryLog log;
      status = resume(*options, folderOfInterrupted(options->resume), *backup);
      return;
    }
    if (wanted.source.empty()) refuseWithout("SOURCE");
    if (wanted.disk.empty()) refuseWithout("DISK");
    if (wanted.partition == 0) refuseWithout("--partition");
    status = restore(*options, *backup);
  });
}

}  // namespace vorlix::tool
