// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/Backup.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Complaint.h"
#include "DiskTables.h"
#include "Failure.h"
#include "Json.h"
#include "LibraryLog.h"
#include "Progress.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr const char* kNothingSaved = "nothing was saved";

struct BackupOptions {
  BackupRequest request;
  std::string verified;  ///< the folder to be verified
  bool dryRun = false;
  bool json = false;
  ProgressForm progress = ProgressForm::people;

  bool printsJson() const { return json || progress == ProgressForm::json; }
};

void printPlan(const BackupPlan& plan) {
  const Allocation& allocation = plan.allocation;
  const std::string kind = allocation.fileSystem.empty() ? "unknown file system" : allocation.fileSystem;
  std::printf("Volume     %s, %s, %s\n", printable(plan.name).c_str(), kind.c_str(), sizeText(plan.size).c_str());
  if (allocation.doubt.empty()) {
    std::printf("Content    %s in use, in %zu ranges; the rest is saved as zeros\n",
                sizeText(allocation.usedBytes()).c_str(), allocation.used.size());
  } else {
    std::printf("Content    all of it, free space too: %s\n", printable(allocation.doubt).c_str());
  }
  for (const BackupPart& part : plan.parts) {
    if (part.missing.empty()) {
      std::printf("With       %s (%s)\n", part.file.c_str(), shortSizeText(part.bytes.size()).c_str());
    } else {
      std::printf("Without    %s: %s\n", part.file.c_str(), printable(part.missing).c_str());
    }
  }
  std::fflush(stdout);
}

void printPlanJson(const BackupPlan& plan) {
  Json missing = Json::object();
  for (const BackupPart& part : plan.parts) {
    if (!part.missing.empty()) missing.add(part.key, part.missing);
  }
  const Allocation& allocation = plan.allocation;
  Json::object({{"version", kJsonVersion},
                {"phase", "plan"},
                {"volume", plan.name},
                {"size", plan.size},
                {"fileSystem", allocation.fileSystem.empty() ? Json() : Json(allocation.fileSystem)},
                {"everything", !allocation.doubt.empty()},
                {"reason", allocation.doubt.empty() ? Json() : Json(allocation.doubt)},
                {"bytes", allocation.usedBytes()},
                {"ranges", allocation.used.size()},
                {"missing", std::move(missing)}})
      .printLine();
}

[[noreturn]] void fail(const BackupFailure& failure, const std::string& state) {
  throw Failure(failure.subject, failure.reason, state);
}

int save(const BackupOptions& options) {
  const LibraryLog log;  // look-ups write to it
  const bool isJson = options.printsJson();
  BackupPlan plan;
  if (const auto failure = planBackup(options.request, plan)) {
    if (const auto why = whySliceIsMissing(options.request.volume))
      throw Failure(options.request.volume, *why, kNothingSaved);
    fail(*failure, kNothingSaved);
  }
  for (const std::string& warning : plan.warnings) complain(options.request.volume + ": " + warning);
  isJson ? printPlanJson(plan) : printPlan(plan);
  if (options.dryRun) return kDone;

  const Interruption interruption;
  Progress progress(options.progress, "saving");
  BackupResult result;
  const auto failure = runBackup(
      plan,
      [&](const BackupProgress& state) {
        progress.show(state.done, state.total);
        return !Interruption::hasCome();
      },
      result);
  if (!failure) progress.finish();
  if (failure && failure->isThere) {
    fail(*failure, options.request.folder + " is there and whole, but may not be on the medium");
  }
  if (failure) fail(*failure, kNothingSaved);
  if (isJson) {
    Json::object({{"version", kJsonVersion},
                  {"phase", "saved"},
                  {"folder", options.request.folder},
                  {"packedSize", result.packedSize}})
        .printLine();
  } else {
    std::printf("Saved      %s, %s packed\n", printable(options.request.folder).c_str(),
                sizeText(result.packedSize).c_str());
  }
  return kDone;
}

int verify(const BackupOptions& options) {
  const Interruption interruption;
  Progress progress(options.progress, "verifying");
  std::vector<BackupFinding> findings;
  const auto failure = verifyBackup(
      options.verified,
      [&](const BackupProgress& state) {
        progress.show(state.done, state.total);
        return !Interruption::hasCome();
      },
      findings);
  if (failure) fail(*failure, "not verified");
  progress.finish();
  const std::string folder = printable(options.verified);
  if (options.printsJson()) {
    Json list = Json::array();
    for (const BackupFinding& finding : findings) {
      list.append(Json::object({{"file", finding.file}, {"text", finding.text}}));
    }
    Json::object(
        {{"version", kJsonVersion}, {"phase", "verified"}, {"whole", findings.empty()}, {"findings", std::move(list)}})
        .printLine();
  } else if (findings.empty()) {
    std::printf("Whole      %s: every file and every range is as it was saved\n", folder.c_str());
  }
  if (!options.printsJson()) {
    for (const BackupFinding& finding : findings) {
      std::printf("Damaged    %s %s\n", printable(finding.file).c_str(), printable(finding.text).c_str());
    }
  }
  return findings.empty() ? kDone : kChangeNeeded;
}

}  // namespace

void addBackupCommand(Command& top, int& status) {
  const auto options = std::make_shared<BackupOptions>();
  Command command = top.addCommand("backup", "Save a volume and what its start needs in a new folder");
  const Option volume = command.addOption("VOLUME", options->request.volume, "Slice of a disk or disk image")
                            .completes(ValueKind::device);
  const Option folder =
      command.addOption("FOLDER", options->request.folder, "Folder to make; one that exists is refused")
          .completes(ValueKind::folder);
  Option verified =
      command.addOption("--verify", options->verified, "Read a backup back and compare").completes(ValueKind::folder);
  verified.excludes(volume).excludes(folder);
  command.addFlag("--dry-run", options->dryRun, "Show what would be saved; write nothing").excludes(verified);
  command
      .addFlag("--force", options->request.force,
               "Save a volume that is mounted for writing or truncated, on which a change was cut off, or of which a "
               "small structure cannot be read")
      .excludes(verified);
  command.addFlag("--json", options->json, "Print the plan and the result as JSON, one object a line");
  addProgressOption(command, options->progress);
  command.setFooter(
      "The folder holds volume.img.zst (zstd), volume.bmap (for bmaptool), manifest.json and the small structures.\n"
      "Exit status: 0 saved, or verified and whole; 1 verified and damaged; 2 error.");
  command.setExamples(
      {"vorlix backup /dev/sda3 saved", "vorlix backup mac.imgs3 saved --dry-run", "vorlix backup --verify saved"});
  command.setAction([options, &status] {
    if (!options->verified.empty()) {
      status = verify(*options);
      return;
    }
    if (options->request.folder.empty()) refuseWithout("VOLUME and FOLDER, or --verify FOLDER,");
    status = save(*options);
  });
}

}  // namespace vorlix::tool
