// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/foundation/CaseFolding.h>
#include <Vorlix/foundation/Sha256.h>
#include <Vorlix/platform/VolumeNames.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "Arbitration.h"
#include "Commands.h"
#include "Failure.h"
#include "Files.h"
#include "Json.h"
#include "LegacyBootFiles.h"
#include "Text.h"
#include "VolumeFolder.h"

namespace vorlix::tool {
namespace {

constexpr const char* kNothingCopied = "nothing was copied";

struct LegacyBootOptions {
  std::string volume;
  std::string store;
  bool dryRun = false;
  bool bytes = false;
  bool json = false;
};

constexpr size_t kLargestFile = size_t{256} << 20;

// Windows ignores case in names. On a volume that is not known to ignore case, the set-up would create "boot" beside an
// existing "Boot", and Windows would see only one of the two.
void requireOneSpelling(const std::string& folder) {
  std::error_code error;
  for (const std::string copied : {"boot", "bootmgr"}) {
    if (std::filesystem::exists(std::filesystem::symlink_status(folder + "/" + copied, error))) continue;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
      const std::string name = entry.path().filename();
      if (lowerCase(name) != copied) continue;
      throw Failure(folder, "contains " + printable(name) + ", which is the same name as " + copied + " to Windows",
                    kNothingCopied);
    }
  }
}

// Returns the folder whose presence shows that the volume is already set up, in the spelling that the volume has. On a
// volume that ignores case, any spelling counts.
std::optional<std::string> bootFolderOf(const VolumeFolder& root, bool caseBlind) {
  const std::optional<std::string> found = root.find("BOOT");
  if (found || caseBlind) return found;
  requireOneSpelling(root.path());
  return std::nullopt;
}

void printPlanJson(const std::string& root, const LegacyBootPlan& plan, const std::optional<std::string>& bootFolder) {
  Json skipped = Json::array();
  for (const std::string& source : plan.skipped) skipped.append(source);
  Json items = Json::array();
  for (const LegacyBootItem& item : plan.items) {
    items.append(Json::object({{"source", item.source}, {"destination", item.destination}}));
  }
  Json::object({{"version", kJsonVersion},
                {"volume", root},
                {"changeNeeded", !plan.items.empty()},
                {"bootFolder", bootFolder},
                {"missing", std::move(skipped)},
                {"items", std::move(items)}})
      .print();
}

// What a file would hold. Whole files are copied, so that their bytes are shown by a digest.
void printBytesOf(const std::string& source, const std::string& destination) {
  const ByteVector bytes = readFile(source, kLargestFile);
  std::printf("  %s: %zu bytes, SHA-256 %s\n", printable(destination).c_str(), bytes.size(), sha256(bytes).c_str());
}

void printBytes(const LegacyBootItem& item) {
  namespace fs = std::filesystem;
  if (!fs::is_directory(item.source)) return printBytesOf(item.source, item.destination);
  std::vector<fs::path> files;
  std::error_code error;
  for (fs::recursive_directory_iterator entry(item.source, error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->is_regular_file(error)) files.push_back(entry->path());
  }
  if (error) throw Failure(item.source, error.message(), kNothingCopied);
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files) printBytesOf(file, fs::path(item.destination) / fs::relative(file, item.source));
}

// Returns whether anything was copied, or in a dry run would be copied.
bool setUp(const LegacyBootOptions& options, const BackupChoice& choice) {
  std::error_code error;
  const std::string path = std::filesystem::canonical(folderOfVolume(options.volume), error).string();
  if (error) throw Failure(options.volume, error.message(), kNothingCopied);
  const auto store = std::filesystem::status(options.store, error);
  if (!std::filesystem::is_regular_file(store)) {
    const bool isMissing = store.type() == std::filesystem::file_type::not_found;
    throw Failure(options.store, (error && !isMissing ? error.message() + "; " : "") +
                                     "not a file; --bcd must name the boot configuration store for legacy start");
  }
  const bool caseBlind = isCaseBlindMount(path);
  const VolumeFolder root(path, caseBlind);
  if (!options.dryRun) removeLegacyBootLeftovers(root);
  const std::optional<std::string> boot = bootFolderOf(root, caseBlind);
  if (options.json) {
    const LegacyBootPlan plan =
        boot ? LegacyBootPlan() : planLegacyBoot(root, std::filesystem::canonical(options.store).string());
    printPlanJson(path, plan, boot);
    return !plan.items.empty();
  }
  if (boot) {
    std::printf("%s is already set up (%s exists); nothing was copied\n", printable(path).c_str(),
                printable(*boot).c_str());
    return false;
  }
  if (options.dryRun) std::printf("Dry run: nothing is copied.\n");
  std::printf("Setting up legacy booting to %s\n", printable(path).c_str());
  const LegacyBootPlan plan = planLegacyBoot(root, std::filesystem::canonical(options.store).string());
  for (const std::string& source : plan.skipped) {
    std::printf("%s does not exist, skipping\n", printable(source).c_str());
  }
  for (const LegacyBootItem& item : plan.items) {
    std::printf("copying %s to %s\n", printable(item.source).c_str(), printable(item.destination).c_str());
    if (options.bytes) printBytes(item);
  }
  std::fflush(stdout);
  if (!options.dryRun && !plan.items.empty()) printUndo(copyLegacyBootFiles(root, plan, choice));
  return !plan.items.empty();
}

}  // namespace

void addLegacyBootCommand(Command& top, int& status) {
  const auto options = std::make_shared<LegacyBootOptions>();
  Command command =
      top.addCommand("legacy-boot", "Copy the files that a legacy start of Windows needs into place on its volume");
  command.addOption("VOLUME", options->volume, "Folder where the volume is mounted, or its device")
      .completes(ValueKind::volume)
      .required();
  command.addOption("--bcd", options->store, "Boot configuration store to copy to boot/BCD")
      .completes(ValueKind::file)
      .required();
  const Option dryRun = command.addFlag("--dry-run", options->dryRun, "Show what would be copied; copy nothing");
  const Option bytes =
      command.addFlag("--bytes", options->bytes, "Show the size and the SHA-256 of each file as well").needs(dryRun);
  command.addFlag("--json", options->json, "Show it as JSON").needs(dryRun).excludes(bytes);
  const auto backup = addBackupOptions(command);
  command.setExamples({"vorlix legacy-boot /mnt/windows --bcd BCD --dry-run"});
  command.setAction([options, backup, &status] {
    const bool changes = setUp(*options, *backup);
    status = options->dryRun && changes ? kChangeNeeded : kDone;
  });
}

}  // namespace vorlix::tool
