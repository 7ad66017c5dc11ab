// SPDX-License-Identifier: Apache-2.0
#include "WindowsStart.h"

#include <Vorlix/foundation/LittleEndian.h>
#include <Vorlix/foundation/Sha256.h>
#include <Vorlix/platform/VolumeNames.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "Arbitration.h"
#include "DeviceChanges.h"
#include "DiskTables.h"
#include "Failure.h"
#include "FileReplacement.h"
#include "Identity.h"
#include "Json.h"
#include "MountedSlice.h"
#include "StartVolumeFiles.h"
#include "StoreText.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

// The volumes of one start.
struct StartVolumes {
  std::string windows;  // as disk arbitration names it
  std::string system;   // likewise; for a BIOS start the same
  StoreTargets targets;
};

StorePartition gptIdentityOf(const std::string& slice) {
  const Identity identity = identify(slice);
  if (!identity.partitionGUID || !identity.diskGUID) {
    throw Failure(slice, "its partition and disk GUIDs are not known");
  }
  return {false, *identity.partitionGUID, *identity.diskGUID};
}

// A BIOS start knows the disk by its MBR.
StorePartition mbrIdentityOf(const std::string& disk, const std::string& slice) {
  const DiskTables tables = readTables(disk);
  const Identity identity = identify(slice);
  const auto isSlice = [&](const MBRPartitionEntry& slot) {
    return slot.type != 0 && identity.offset &&
           uint64_t{slot.lba} * tables.blockSize == static_cast<uint64_t>(*identity.offset);
  };
  if (!tables.hasMBR() || std::none_of(std::begin(tables.mbr.parts), std::end(tables.mbr.parts), isSlice)) {
    throw Failure(slice, "the MBR of its disk has no slot for it, so no BIOS starts it; see vorlix hybrid");
  }
  constexpr size_t kSignature = 440;
  const auto signature = static_cast<uint32_t>(littleEndian(tables.sector0, kSignature, 4));
  if (signature == 0) throw Failure(disk, "its MBR has no disk signature, by which a store identifies the disk");
  return mbrStorePartition(static_cast<uint64_t>(*identity.offset), signature);
}

StartVolumes volumesOf(const WindowsStartOptions& options) {
  const std::string disk = bsdNameOf(options.disk);
  StartVolumes volumes;
  volumes.windows = bsdNameOf(sliceNameOf(options.disk, options.partition));
  const bool isEFI = options.firmware == StartFirmware::efi;
  volumes.system = isEFI ? sliceNameOf(disk, 1) : volumes.windows;
  if (volumes.windows == volumes.system && isEFI) throw Failure(volumes.windows, "is the EFI System Partition itself");
  requireSoundGPTOf(volumes.system, options.force);
  if (isEFI) {
    volumes.targets = {gptIdentityOf(volumes.system), gptIdentityOf(volumes.windows)};
  } else {
    const StorePartition partition = mbrIdentityOf(disk, volumes.windows);
    volumes.targets = {partition, partition};
  }
  return volumes;
}

StartFilesPlan planOf(const WindowsStartOptions& options, const StartVolumes& volumes, const FilesOfVolume& windows,
                      const FilesOfVolume& system) {
  StartFilesRequest request;
  request.firmware = options.firmware;
  request.windows = &windows;
  request.system = &system;
  request.partitions = volumes.targets;
  request.description = options.description;
  StartFilesPlan plan;
  if (const auto reason = planStartFiles(request, plan)) throw Failure(volumes.windows, *reason);
  return plan;
}

// Plans by what can be seen without mounting anything.
StartFilesPlan planOf(const WindowsStartOptions& options, const StartVolumes& volumes) {
  const auto windows = lookAtFiles(volumes.windows);
  if (volumes.system == volumes.windows) return planOf(options, volumes, *windows, *windows);
  return planOf(options, volumes, *windows, *lookAtFiles(volumes.system));
}

void printKept(const StartFilesPlan& plan, std::FILE* output) {
  for (const std::string& path : plan.kept) {
    std::fprintf(output, "Kept       %s, which is not Windows' own\n", printable(path.substr(1)).c_str());
  }
}

void printObjects(const StartFilesPlan& plan, const StoreTargets& targets) {
  std::vector<std::vector<std::string>> rows = {{"OBJECT", "ELEMENT", "NAMES"}};
  for (const StoreObject& object : plan.objects) {
    for (const StoreElement& element : object.elements) {
      const auto partitions = element.isDevice() ? partitionsOf(element.data) : std::vector<StorePartition>();
      if (partitions.empty()) continue;
      const bool isSystem =
          partitions.front() == targets.system && storePlaceOf(object.type) == StorePlace::systemPartition;
      rows.push_back({printable(object.identifier) + " " + storeObjectKind(object.type), hexDigits(element.type, 8),
                      std::string(isSystem ? "system partition " : "Windows volume ") + partitionText(partitions)});
    }
  }
  std::printf("%s", tableText(rows, "lll").c_str());
}

void printDryRun(const StartVolumes& volumes, const StartFilesPlan& plan) {
  std::printf("Dry run: nothing is mounted or opened for writing.\n\n");
  if (plan.isEmpty()) {
    std::printf("All %zu files are on %s already.\n", plan.present, printable(volumes.system).c_str());
  } else {
    std::printf("On %s would be made:\n", printable(volumes.system).c_str());
    for (const std::string& folder : plan.folders) std::printf("  %s/\n", printable(folder.substr(1)).c_str());
    for (const StartFile& file : plan.files) {
      const std::string source = file.source.empty() ? "made from Windows/System32/config/BCD-Template"
                                                     : "from " + printable(file.source.substr(1));
      std::printf("  %s (%zu bytes, %s%s)\n", printable(file.path.substr(1)).c_str(), file.bytes.size(), source.c_str(),
                  file.before ? "; replaces another" : "");
    }
    std::printf("%zu files are there already.\n", plan.present);
  }
  printKept(plan, stdout);
  std::printf("\n");
  printObjects(plan, volumes.targets);
}

Json textsJson(const std::vector<std::string>& texts) {
  Json array = Json::array();
  for (const std::string& text : texts) array.append(text);
  return array;
}

void printStartDryRunJson(const StartVolumes& volumes, const StartFilesPlan& plan) {
  Json files = Json::array();
  for (const StartFile& file : plan.files) {
    files.append(Json::object({{"path", file.path},
                               {"source", knownText(file.source)},
                               {"size", file.bytes.size()},
                               {"replaces", file.before.has_value()}}));
  }
  Json::object({{"version", kJsonVersion},
                {"windows", volumes.windows},
                {"system", volumes.system},
                {"changeNeeded", !plan.isEmpty()},
                {"folders", textsJson(plan.folders)},
                {"files", std::move(files)},
                {"present", plan.present},
                {"kept", textsJson(plan.kept)},
                {"store", plan.store}})
      .print();
}

// Bytes that a volume gives to a file. NTFS and FAT have the two numbers in one place.
uint64_t clusterSizeOf(const std::string& slice) {
  constexpr uint64_t kLargestCluster = 65536;
  ByteVector sector = readDevice(slice, 0, 512);
  const uint64_t size = littleEndian(sector, 11, 2) * sector[13];
  return size == 0 || size > kLargestCluster ? kLargestCluster : size;
}

// All old files stay until the last new one is written, but on a mirrored volume, whose disk is changed at once.
void checkRoom(const MountedSlice& system, const std::string& slice, const StartFilesPlan& plan) {
  const std::optional<uint64_t> space = system.freeSpace();
  if (!space) return;
  const uint64_t cluster = clusterSizeOf(slice);
  const auto rounded = [&](uint64_t size) { return (size + cluster - 1) / cluster * cluster; };
  uint64_t needed = 2 * plan.folders.size() * cluster;  // and their places in the folders above
  uint64_t freed = 0;
  for (const StartFile& file : plan.files) {
    needed += rounded(file.bytes.size());
    if (file.before && system.isMirror()) freed += rounded(file.before->size());
  }
  if (*space + freed >= needed) return;
  throw Failure(slice, "no room for the boot files of " + sizeText(needed) + ", " + sizeText(*space) + " are free",
                "nothing was written");
}

std::vector<FileChange> changesOf(const std::string& slice, const StartFilesPlan& plan) {
  std::vector<FileChange> changes;
  for (const std::string& folder : plan.folders) {
    FileChange change;
    change.volume = slice;
    change.path = folder;
    change.isFolder = true;
    changes.push_back(change);
  }
  for (const StartFile& file : plan.files) {
    FileChange change;
    change.volume = slice;
    change.path = file.path;
    change.before = file.before;
    change.after = sha256(file.bytes);
    changes.push_back(change);
  }
  return changes;
}

// @return the folder of the backup.
std::string write(const WindowsStartOptions& options, const std::string& slice, const VolumeFolder& root,
                  const StartFilesPlan& plan) {
  constexpr const char* kPartly = "some of the files are in place; run the command again for the rest, or undo it";
  const char* const firmware = options.firmware == StartFirmware::efi ? "an EFI" : "a BIOS";
  FileBackup backup(std::string("files for ") + firmware + " start on " + slice, changesOf(slice, plan),
                    options.backup);
  const auto split = [](const std::string& path) {
    const size_t slash = path.rfind('/');
    return std::pair(path.substr(0, slash), path.substr(slash + 1));
  };
  for (const std::string& path : plan.folders) {
    const auto [parent, name] = split(path);
    const VolumeFolder folder = root.folderAt(parent);
    constexpr mode_t kMode = 0777;  // less the process's umask
    backup.keep();
    if (mkdirat(folder.descriptor(), name.c_str(), kMode) != 0) {
      throw Failure::ofErrno(folder.pathOf(name), errno, kPartly);
    }
    folder.sync(kPartly);
  }
  for (const StartFile& file : plan.files) {
    const auto [parent, name] = split(file.path);
    const VolumeFolder folder = root.folderAt(parent);
    FileReplacement(folder, name).replaceBy(file.bytes, [&] { backup.keep(); });
  }
  return backup.keep();
}

// Plans again, since what stands there while the volume is mounted counts, and writes. Closes all folders of the
// volume, so that it can be unmounted.
std::string writeTo(const WindowsStartOptions& options, const StartVolumes& volumes, const MountedSlice& system,
                    StartFilesPlan& plan) {
  const MountedFiles files(VolumeFolder(system.path(), isCaseBlindDevice(volumes.system)));
  plan = volumes.system == volumes.windows ? planOf(options, volumes, files, files)
                                           : planOf(options, volumes, *lookAtFiles(volumes.windows), files);
  checkRoom(system, volumes.system, plan);
  return write(options, volumes.system, files.root(), plan);
}

void printDone(const WindowsStartOptions& options, const StartVolumes& volumes, const StartFilesPlan& plan,
               const std::string& kept) {
  const std::string slice = printable(volumes.system);
  if (plan.isEmpty()) {
    std::fprintf(options.output, "Files      all %zu on %s already, none written\n", plan.present, slice.c_str());
  } else {
    std::fprintf(options.output, "Files      %zu written to %s and read back, %zu were there already\n",
                 plan.files.size(), slice.c_str(), plan.present);
  }
  printKept(plan, options.output);
  std::fprintf(options.output, "Store      %s: starts %s from %s\n", printable(plan.store.substr(1)).c_str(),
               printable(options.description).c_str(), printable(volumes.windows).c_str());
  if (options.backup.partOf.empty()) printUndo(kept, options.output);
}

}  // namespace

int putWindowsStart(const WindowsStartOptions& options) {
  const StartVolumes volumes = volumesOf(options);
  if (options.dryRun) {
    const StartFilesPlan plan = planOf(options, volumes);
    options.json ? printStartDryRunJson(volumes, plan) : printDryRun(volumes, plan);
    return plan.isEmpty() ? kDone : kChangeNeeded;
  }
  finishInterruptedChanges(volumes.system);
  StartFilesPlan plan = planOf(options, volumes);
  std::string kept;
  // On a mounted volume the files may be in memory or in a mirror alone, where an earlier run was cut off.
  if (!plan.isEmpty() || mountPointOf(volumes.system)) {
    MountedSlice system(volumes.system);
    if (!plan.isEmpty()) kept = writeTo(options, volumes, system, plan);
    system.finish("what was written");
  }
  printDone(options, volumes, plan, kept);
  return kDone;
}

}  // namespace vorlix::tool
