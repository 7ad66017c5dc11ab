// SPDX-License-Identifier: Apache-2.0
#include "RestoreStart.h"

#include <exception>

#include "Arbitration.h"
#include "Failure.h"
#include "StartFacts.h"
#include "Text.h"
#include "VolumeLook.h"
#include "WindowsStart.h"

namespace vorlix::tool {
namespace {

constexpr const char* kIfThere = "efi-if-there";
constexpr const char* kRequired = "efi";

// @return whether the volume has what the files and the store for EFI are made from. Throws Failure if nobody can tell.
bool hasBootFiles(const std::string& slice) {
  const VolumeLook look(slice);
  for (const FileFact& fact : {look.fact({"Windows", "Boot", "EFI", "bootmgfw.efi"}),
                               look.fact({"Windows", "System32", "config", "BCD-Template"})}) {
    if (fact.sight == FileFact::Sight::unseen) throw Failure(slice, fact.reason);
    if (fact.sight == FileFact::Sight::missing) return false;
  }
  return true;
}

}  // namespace

std::string wordOf(EFIFiles files) {
  if (files == EFIFiles::none) return "";
  return files == EFIFiles::required ? kRequired : kIfThere;
}

EFIFiles efiFilesOf(const std::string& word) {
  if (word == kRequired) return EFIFiles::required;
  return word == kIfThere ? EFIFiles::ifThere : EFIFiles::none;
}

bool putEFIFiles(const RestoredVolume& volume, const ChangeBackup& backup, std::FILE* output) {
  try {
    if (!hasBootFiles(sliceNameOf(volume.disk, volume.partition))) return false;
  } catch (const Failure& failure) {
    if (volume.files == EFIFiles::required) throw;
    std::fprintf(output, "Note       no start files for EFI were looked for: %s\n", printable(failure.what()).c_str());
    return false;
  }
  WindowsStartOptions options;
  options.disk = volume.disk;
  options.partition = volume.partition;
  options.backup = backup;
  options.output = output;
  putWindowsStart(options);
  return true;
}

std::optional<StartWay> wayOf(const RestoredVolume& volume, bool hasEFIFiles) {
  const bool isEFI = hasEFIFiles || volume.files == EFIFiles::required;
  if (!volume.isLegacy) return isEFI ? std::optional(StartWay::efi) : std::nullopt;
  return isEFI ? StartWay::both : StartWay::legacy;
}

bool printStart(const RestoredVolume& volume, StartWay way, std::FILE* output) {
  StartReport report;
  try {
    report = checkStart(collectStartFacts(volume.disk, volume.partition, 0), way);
  } catch (const std::exception& error) {
    throw Failure(volume.disk, std::string("whether it starts cannot be told: ") + error.what(),
                  "the volume is restored");
  }
  for (const StartFinding& finding : report.findings) {
    if (finding.state != StartFinding::State::fault) continue;
    std::fprintf(output, "Missing    %s\n           because %s\n           to mend: %s\n",
                 printable(finding.text).c_str(), printable(finding.why).c_str(), printable(finding.command).c_str());
  }
  const bool starts = report.starts();
  if (starts) std::fprintf(output, "Start      the disk starts as far as can be told (vorlix check)\n");
  return starts;
}

}  // namespace vorlix::tool
