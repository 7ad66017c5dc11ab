// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Arbitration.h"
#include "Commands.h"
#include "Failure.h"
#include "Json.h"
#include "LibraryLog.h"
#include "RestoreResume.h"
#include "RestoreRun.h"
#include "RestoreView.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

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
  if (prepared.efiObstacle) {
    std::fprintf(textOutput(options.progress), "EFI        no start files: %s\n",
                 printable(*prepared.efiObstacle).c_str());
  } else if (!prepared.efiVolume.empty()) {
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
    return resumeInterrupted(options, *folder);
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
  prepared = {};  // closes the disk, which is looked at anew
  const EFIFiles files = result.rest ? request.efiFiles : EFIFiles::none;
  return complete(options, std::move(result),
                  {request.disk, request.partition, request.isLegacy, files, shown.image.has_value()});
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
      const char* const kFixed = "a restore keeps its backups where it was begun to";
      if (!backup->folder.empty()) refuseValue("--backup", kFixed);
      if (backup->isOff) refuseValue("--no-backup", kFixed);
      const LibraryLog log;
      status = resumeInterrupted(*options, folderOfInterrupted(options->resume));
      return;
    }
    if (wanted.source.empty()) refuseWithout("SOURCE");
    if (wanted.disk.empty()) refuseWithout("DISK");
    if (wanted.partition == 0) refuseWithout("--partition");
    status = restore(*options, *backup);
  });
}

}  // namespace vorlix::tool
