// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/Backup.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Commands.h"
#include "Complaint.h"
#include "Failure.h"
#include "LibraryLog.h"
#include "Progress.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

using Json = nlohmann::ordered_json;

struct BackupOptions {
  BackupRequest request;
  std::string verified;  ///< the folder to be verified
  bool dryRun = false;
  ProgressForm progress = ProgressForm::people;
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
    if (!part.missing.empty()) missing[part.key] = part.missing;
  }
  const Allocation& allocation = plan.allocation;
  const Json document = {{"phase", "plan"},
                         {"volume", plan.name},
                         {"size", plan.size},
                         {"fileSystem", allocation.fileSystem.empty() ? Json() : Json(allocation.fileSystem)},
                         {"everything", !allocation.doubt.empty()},
                         {"reason", allocation.doubt.empty() ? Json() : Json(allocation.doubt)},
                         {"bytes", allocation.usedBytes()},
                         {"ranges", allocation.used.size()},
                         {"missing", missing}};
  std::puts(document.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
  std::fflush(stdout);
}

[[noreturn]] void fail(const BackupFailure& failure, const std::string& state) {
  throw Failure(failure.subject, failure.reason, state);
}

int save(const BackupOptions& options) {
  const LibraryLog log;  // look-ups write to it
  const bool isJson = options.progress == ProgressForm::json;
  BackupPlan plan;
  if (const auto failure = planBackup(options.request, plan)) fail(*failure, "nothing was saved");
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
  if (failure) fail(*failure, "nothing was saved");
  if (isJson) {
    std::puts(Json({{"phase", "saved"}, {"folder", options.request.folder}, {"packedSize", result.packedSize}})
                  .dump(-1, ' ', false, Json::error_handler_t::replace)
                  .c_str());
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
  if (options.progress == ProgressForm::json) {
    Json list = Json::array();
    for (const BackupFinding& finding : findings) list.push_back({{"file", finding.file}, {"text", finding.text}});
    std::puts(Json({{"phase", "verified"}, {"whole", findings.empty()}, {"findings", list}})
                  .dump(-1, ' ', false, Json::error_handler_t::replace)
                  .c_str());
  } else if (findings.empty()) {
    std::printf("Whole      %s: every file and every range is as it was saved\n", folder.c_str());
  }
  if (options.progress != ProgressForm::json) {
    for (const BackupFinding& finding : findings) {
      std::printf("Damaged    %s %s\n", printable(finding.file).c_str(), printable(finding.text).c_str());
    }
  }
  return findings.empty() ? kDone : kChangeNeeded;
}

}  // namespace

void addBackupCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<BackupOptions>();
  CLI::App* const command = app.add_subcommand("backup", "Save a volume and what its start needs in a new folder");
  CLI::Option* const volume = command->add_option("VOLUME", options->request.volume, "Slice of a disk or disk image");
  CLI::Option* const folder =
      command->add_option("FOLDER", options->request.folder, "Folder to make; one that exists is refused");
  CLI::Option* const verified = command->add_option("--verify", options->verified, "Read a backup back and compare");
  verified->option_text("FOLDER")->excludes(volume)->excludes(folder);
  command->add_flag("--dry-run", options->dryRun, "Show what would be saved; write nothing")->excludes(verified);
  command
      ->add_flag("--force", options->request.force,
                 "Save a volume that is mounted for writing, or on which a change was cut off")
      ->excludes(verified);
  addProgressOption(*command, options->progress);
  command->footer(
      "The folder holds volume.img.zst (zstd), volume.bmap (for bmaptool), manifest.json and the small structures.\n"
      "Exit status: 0 saved, or verified and whole; 1 verified and damaged; 2 error.");
  command->callback([options, &status] {
    if (!options->verified.empty()) {
      status = verify(*options);
      return;
    }
    if (options->request.folder.empty()) throw CLI::RequiredError("VOLUME and FOLDER, or --verify FOLDER,");
    status = save(*options);
  });
}

}  // namespace vorlix::tool
