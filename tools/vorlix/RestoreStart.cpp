// SPDX-License-Identifier: Apache-2.0
#include "RestoreStart.h"

#include <Vorlix/BootStore.h>
#include <Vorlix/StartCheck.h>
#include <Vorlix/platform/CompanionProgram.h>

#include <exception>
#include <optional>

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
  const FileFact fact = filesForStart(VolumeLook(slice), StartFirmware::efi);
  if (fact.sight == FileFact::Sight::unseen) throw Failure(slice, fact.reason);
  return fact.sight == FileFact::Sight::there;
}

void printMissing(const std::string& what, const std::string& why, const std::string& command, std::FILE* output) {
  std::fprintf(output, "Missing    %s\n           because %s\n           to mend: %s\n", printable(what).c_str(),
               printable(why).c_str(), printable(command).c_str());
}

// The way in which the volume is to start; absent if it is only restored.
std::optional<StartWay> wayOf(const RestoredVolume& volume, EFIResult files) {
  const bool isEFI = files != EFIResult::unwanted || volume.files == EFIFiles::required;
  if (!volume.isLegacy) return isEFI ? std::optional(StartWay::efi) : std::nullopt;
  return isEFI ? StartWay::both : StartWay::legacy;
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

std::optional<std::string> efiObstacle(const std::string& systemPartition) {
  if (!companionProgram(kBootStoreProgram)) return std::string(kBootStoreProgram) + " is not installed";
  const FileFact store = VolumeLook(systemPartition).fact({"EFI", "Microsoft", "Boot", "BCD"});
  return store.sight == FileFact::Sight::unseen ? std::optional(store.reason) : std::nullopt;
}

EFIResult putEFIFiles(const RestoredVolume& volume, const ChangeBackup& backup, std::FILE* output) {
  if (volume.files == EFIFiles::none) return EFIResult::unwanted;
  try {
    if (!hasBootFiles(sliceNameOf(volume.disk, volume.partition))) return EFIResult::unwanted;
  } catch (const Failure& failure) {
    if (volume.files == EFIFiles::required) throw;
    std::fprintf(output, "Note       no start files for EFI were looked for: %s\n", printable(failure.what()).c_str());
    return EFIResult::unwanted;
  }
  const auto obstacle = efiObstacle(sliceNameOf(volume.disk, 1));
  if (obstacle && volume.files == EFIFiles::ifThere) {
    printMissing("the start files for EFI", *obstacle,
                 "first that, then vorlix bcd " + commandWord(volume.disk) + " --partition " +
                     std::to_string(volume.partition) + " --from-windows",
                 output);
    return EFIResult::missing;
  }
  WindowsStartOptions options;
  options.disk = volume.disk;
  options.partition = volume.partition;
  options.backup = backup;
  options.output = output;
  putWindowsStart(options);
  return EFIResult::there;
}

bool printStart(const RestoredVolume& volume, EFIResult files, std::FILE* output) {
  const std::optional<StartWay> way = wayOf(volume, files);
  if (!way) return true;
  StartReport report;
  try {
    report = checkStart(collectStartFacts(volume.disk, volume.partition, 0), *way);
  } catch (const std::exception& error) {
    throw Failure(volume.disk, std::string("whether it starts cannot be told: ") + error.what(),
                  "the volume is restored");
  }
  for (const StartFinding& finding : report.findings) {
    if (finding.state != StartFinding::State::fault) continue;
    printMissing(finding.text, finding.why, finding.command, output);
  }
  const bool starts = report.starts() && files != EFIResult::missing;
  if (starts) std::fprintf(output, "Start      the disk starts as far as can be told (vorlix check)\n");
  return starts;
}

}  // namespace vorlix::tool
