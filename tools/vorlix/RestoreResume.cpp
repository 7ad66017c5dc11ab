// SPDX-License-Identifier: Apache-2.0
#include "RestoreResume.h"

#include <functional>
#include <utility>
#include <vector>

#include "Arbitration.h"
#include "DeviceChanges.h"
#include "Failure.h"
#include "Identity.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

std::unique_ptr<LongChange> openJournal(const std::string& folder) {
  std::optional<ChangeFailure> failure;
  auto journal = openLongChange(folder, failure);
  if (failure) fail(*failure);
  return journal;
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

// What the journal says of the volume and its start. Without its command line, a legacy start is known by sector 0.
RestoredVolume restoredVolumeOf(const LongChange& journal) {
  const std::vector<DeviceChange>& devices = journal.structures().devices;
  const Identity identity = identify(devices[journal.origin().device].device);
  return {identity.wholeDisk, static_cast<uint32_t>(identity.partition), devices.size() > 1,
          efiFilesOf(journal.origin().between), false};
}

}  // namespace

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

std::optional<std::string> interruptedRestoreOf(const RestoreRequest& request, const std::string& volume) {
  for (const std::string& folder : interruptedLongChanges()) {
    std::optional<ChangeFailure> failure;
    const auto journal = openLongChange(folder, failure);
    if (!journal) continue;  // of a restore that is running; if it is on this disk, opening the disk says so
    const std::string& device = journal->structures().devices[journal->origin().device].device;
    if (device != volume && ownNameOf(device) != ownNameOf(volume)) continue;
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

int resumeInterrupted(const RestoreOptions& options, const std::string& folder) {
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
  handles.clear();
  return complete(options, std::move(result), restored);
}

}  // namespace vorlix::tool
