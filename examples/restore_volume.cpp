// SPDX-License-Identifier: Apache-2.0
//
// Lists the mounted volumes, or restores a volume to a slice of a disk:
//
//     restore_volume
//     restore_volume win.img.xz mac.imgs3
//
// The slice is overwritten without a question. The MBR stays as it is.
#include <Vorlix/BootSectors.h>
#include <Vorlix/QDDeviceManager.h>
#include <Vorlix/QDVolume.h>
#include <Vorlix/Restore.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <system_error>

namespace {

// A delegate: the library logs to it, line by line and on the thread that called.
class LinesToStandardError : public vorlix::Object, public vorlix::LogReceiver {
 public:
  void log(const std::string& line) override { std::fprintf(stderr, "%s\n", line.c_str()); }
};

void listVolumes() {
  const auto manager = QDDeviceManager::sharedDeviceManager();
  const auto delegate = std::make_shared<LinesToStandardError>();  // the manager does not own it
  manager->setDelegate(delegate);
  for (const auto& volume : manager->attachedDisks()) {
    std::printf("%s\t%s\t%s%s\n", volume->device().value_or("?").c_str(),
                volume->fileSystemType().value_or("?").c_str(), volume->filePath().value_or("?").c_str(),
                volume->hasWindows() ? "\tWindows" : "");
  }
}

vorlix::Sector sectorAt(vorlix::DeviceHandle& handle, uint64_t offset) {
  vorlix::Sector sector = {};
  if (handle.readAt(sector.data(), sector.size(), offset) != static_cast<ssize_t>(sector.size())) {
    throw std::runtime_error("cannot read the slice");
  }
  return sector;
}

// The boot sector of the source, with the place where the volume will be. It keeps its serial: it is the same volume.
vorlix::Sector movedBootSector(const vorlix::ImageFacts& source, vorlix::DeviceHandle& slice) {
  vorlix::Sector sector = {};
  std::copy_n(source.start.begin(), sector.size(), sector.begin());
  const vorlix::Field field = vorlix::serialField(sector);
  const auto identity = slice.identity();
  const uint64_t blockSize = slice.blockSize().value_or(512);
  if (field.size == 0 || !identity || !identity->offset) return sector;  // exFAT, or a place that nobody knows
  const uint64_t firstBlock = *identity->offset / blockSize;
  if (firstBlock > std::numeric_limits<uint32_t>::max()) return sector;
  vorlix::Serial serial = {};
  std::copy_n(sector.begin() + static_cast<std::ptrdiff_t>(field.offset), field.size, serial.begin());
  return vorlix::patchedBootSector(sector, static_cast<uint32_t>(firstBlock), serial);
}

void restore(const std::string& image, const std::string& device) {
  const std::shared_ptr<vorlix::DeviceHandle> slice =
      vorlix::platform().deviceFile->open(device, vorlix::DeviceAccess::readWrite, vorlix::DeviceLock::exclusive);
  if (!slice) throw std::system_error(errno, std::generic_category(), device);
  const uint64_t size = slice->size().value_or(0);

  vorlix::ImageFailure unreadable;
  const auto source = vorlix::openImageSource(image, {size}, unreadable);
  if (!source) throw std::runtime_error(unreadable.subject + ": " + unreadable.reason);
  const auto& volume = source->facts().volume;
  if (!volume) throw std::runtime_error(image + ": not a volume that is known");
  if (volume->size() > size) throw std::runtime_error(device + " is too small");

  // A change of another process that was interrupted must not be mixed with this one.
  std::vector<std::string> finished;
  if (const auto failure = vorlix::settleInterruptedChanges(device, *slice, finished)) {
    throw std::runtime_error(failure->subject + ": " + failure->reason);
  }

  // The boot sectors are the last to be written, so that no half-written volume looks like a whole one.
  const vorlix::Sector now = sectorAt(*slice, 0);
  const vorlix::Sector moved = movedBootSector(source->facts(), *slice);
  vorlix::DeviceChange change = {device, slice, {}};
  change.bytes.push_back({0, {now.begin(), now.end()}, {moved.begin(), moved.end()}, "the boot sector"});
  if (volume->format == vorlix::VolumeFormat::ntfs) {  // its second boot sector is behind the volume
    const vorlix::Sector second = sectorAt(*slice, volume->size() - volume->sectorSize);
    change.bytes.push_back({volume->size() - volume->sectorSize,
                            {second.begin(), second.end()},
                            {moved.begin(), moved.end()},
                            "the second boot sector"});
  }
  vorlix::RestorePlan plan;
  plan.source = std::filesystem::absolute(image);
  plan.structures = {"restore of " + image + " to " + device, {change}};

  const auto show = [](const vorlix::RestoreProgress& progress) {
    const bool isWriting = progress.phase == vorlix::RestoreProgress::Phase::writing;
    std::fprintf(
        stderr, "\r%s %3.0f %%", isWriting ? "writing  " : "comparing",
        progress.total == 0 ? 0 : 100.0 * static_cast<double>(progress.done) / static_cast<double>(progress.total));
    return true;  // false would stop here, and resumeRestore() could go on
  };
  const vorlix::RestoreResult result = vorlix::restoreVolume(*source, plan, true, show);
  std::fputc('\n', stderr);
  if (result.end != vorlix::RestoreResult::End::done) {
    throw std::runtime_error(result.failure.subject + ": " + result.failure.reason + "; " + result.failure.state);
  }
  std::printf("%s: %s, %llu bytes, read back and compared\n", device.c_str(), vorlix::nameOf(volume->format),
              static_cast<unsigned long long>(result.size));
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 1 && argc != 3) {
    std::fputs("usage: restore_volume [IMAGE SLICE]\n", stderr);
    return 2;
  }
  if (argc == 1) {
    listVolumes();
  } else {
    restore(argv[1], argv[2]);
  }
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "restore_volume: %s\n", error.what());
  return 1;
}
