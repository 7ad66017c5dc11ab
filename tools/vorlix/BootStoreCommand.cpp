// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/BootStore.h>
#include <Vorlix/StoreSlots.h>
#include <Vorlix/foundation/Sha256.h>
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/DiskChange.h>
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/VolumeNames.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Arbitration.h"
#include "Backup.h"
#include "Commands.h"
#include "Complaint.h"
#include "DeviceChanges.h"
#include "DiskTables.h"
#include "Failure.h"
#include "FileReplacement.h"
#include "Files.h"
#include "Identity.h"
#include "LibraryLog.h"
#include "MountedSlice.h"
#include "StoreText.h"
#include "Text.h"
#include "UnmountedFile.h"
#include "VolumeFolder.h"
#include "WindowsStart.h"

namespace vorlix::tool {
namespace {

constexpr size_t kLargestStore = size_t{64} * 1024 * 1024;
constexpr const char* kStorePath = "/EFI/Microsoft/Boot/BCD";
constexpr const char* kStoreFolder = "EFI/Microsoft/Boot";
constexpr const char* kStoreName = "BCD";

// The store itself says where its device elements are. No number that the library knows as a mode.
constexpr int32_t kModeAuto = std::numeric_limits<int32_t>::min();

const std::map<std::string, int32_t> kModes = {
    {"auto", kModeAuto}, {"standard", 0}, {"mdt", kStoreModeMDT}, {"sccm", kStoreModeSCCM}};

struct StoreOptions {
  std::string disk;
  uint32_t partition = 0;
  std::string templateFile;
  int32_t mode = 0;
  bool dryRun = false;
  bool json = false;
  bool force = false;
  std::shared_ptr<BackupChoice> backup;
};

struct StorePlan {
  std::string disk;       // as disk arbitration names it
  std::string partition;  // likewise
  std::string efi;        // likewise: slice 1
  Identity identity;
  ByteVector store;  // the template with the identifiers in place
  ByteVector original;
  std::vector<StoreDeviceChange> devices;  // of kModeAuto
};

// What is wrong with a template; absent for a store with identifiers in the places of the mode.
std::optional<std::string> whyNoTemplate(const StoreOptions& options, const ByteVector& store) {
  if (const auto reason = whyNoHive(store)) return reason;
  std::string odd;
  for (const uint32_t offset : oddSlots(store, options.mode)) odd += (odd.empty() ? "" : ", ") + std::to_string(offset);
  if (odd.empty()) return std::nullopt;
  return "what stands at " + odd +
         " does not look like identifiers (a partition GUID, and a disk GUID 24 bytes on), so it is no template for "
         "this mode";
}

void checkTemplate(const StoreOptions& options, const ByteVector& store) {
  const bool isAuto = options.mode == kModeAuto;
  const std::optional<std::string> reason = isAuto ? whyNoHive(store) : whyNoTemplate(options, store);
  if (!reason) return;
  if (!options.force) throw Failure(options.templateFile, *reason + " (--force takes it all the same)");
  complain(options.templateFile + ": warning: " + *reason);
}

// Sets the identifiers in every device element that names a partition, wherever it is.
void planDevices(const StoreOptions& options, StorePlan& plan) {
  const Identity efi = identify(plan.efi);
  if (!efi.partitionGUID || !efi.diskGUID) throw Failure(plan.efi, "its partition and disk GUIDs are not known");
  StoreTargets targets;
  targets.system = {false, *efi.partitionGUID, *efi.diskGUID};
  targets.windows = {false, *plan.identity.partitionGUID, *plan.identity.diskGUID};
  std::vector<StoreObject> objects;
  if (const auto reason = readStoreObjects(plan.original, objects)) throw Failure(options.templateFile, *reason);
  StoreWithPartitions result;
  if (const auto reason = setStorePartitions(plan.original, objects, targets, result)) {
    throw Failure(options.templateFile, *reason);
  }
  plan.store = std::move(result.store);
  plan.devices = std::move(result.devices);
}

StorePlan planStore(const StoreOptions& options) {
  StorePlan plan;
  plan.original = readFile(options.templateFile, kLargestStore);
  checkTemplate(options, plan.original);
  plan.disk = bsdNameOf(options.disk);
  plan.efi = sliceNameOf(plan.disk, 1);
  plan.partition = bsdNameOf(sliceNameOf(options.disk, static_cast<uint32_t>(options.partition)));
  requireSoundGPTOf(plan.efi, options.force);
  plan.identity = identify(plan.partition);
  if (!plan.identity.partitionGUID || !plan.identity.diskGUID) {
    throw Failure(plan.partition, "its partition and disk GUIDs are not known");
  }
  if (options.mode == kModeAuto) {
    planDevices(options, plan);
  } else {
    plan.store =
        storeWithIdentifiers(plan.original, options.mode, {*plan.identity.partitionGUID, *plan.identity.diskGUID});
  }
  return plan;
}

void printDryRunJson(const StoreOptions& options, const StorePlan& plan) {
  Json::object({{"version", kJsonVersion},
                {"disk", options.disk},
                {"template", options.templateFile},
                {"slice", 1},
                {"path", kStorePath + 1},
                {"partitionGUID", guidText(plan.identity.partitionGUID->data())},
                {"diskGUID", guidText(plan.identity.diskGUID->data())},
                {"changes", differenceJson(plan.original, plan.store, 0)}})
      .print();
}

void printDevices(const std::vector<StoreDeviceChange>& devices) {
  if (devices.empty()) return;
  std::vector<std::vector<std::string>> rows = {{"OBJECT", "ELEMENT", "NAMED", "WILL NAME"}};
  for (const StoreDeviceChange& device : devices) {
    const bool isSystem = device.place == StorePlace::systemPartition;
    rows.push_back({printable(device.object) + " " + storeObjectKind(device.objectType), hexDigits(device.element, 8),
                    partitionText(device.before), isSystem ? "the EFI System Partition" : "the Windows volume"});
  }
  std::printf("%s\n", tableText(rows, "llll").c_str());
}

void printDryRun(const StoreOptions& options, const StorePlan& plan) {
  std::printf("Dry run: nothing is mounted or opened for writing.\n\n");
  std::printf("%s would become %s on slice 1 of %s, with\n", printable(options.templateFile).c_str(), kStorePath + 1,
              printable(options.disk).c_str());
  std::printf("  partition GUID  %s\n  disk GUID       %s\n", guidText(plan.identity.partitionGUID->data()).c_str(),
              guidText(plan.identity.diskGUID->data()).c_str());
  printDevices(plan.devices);
  std::printf("in these places:\n%s", differenceText(plan.original, plan.store, 0).c_str());
}

bool isSameFile(const struct stat& item, const std::string& path) {
  struct stat other = {};
  return stat(path.c_str(), &other) == 0 && item.st_dev == other.st_dev && item.st_ino == other.st_ino;
}

void checkRoom(uint64_t free, const StorePlan& plan, const std::optional<ByteVector>& old) {
  if (free >= plan.store.size()) return;
  throw Failure(plan.efi,
                "no room for the store of " + sizeText(plan.store.size()) + ", " + sizeText(free) + " are free",
                old ? "the old store stands there unchanged" : "nothing was written");
}

// The old store stays until the new one takes its name, but for a mirrored volume, where the disk is changed at once.
void checkRoom(const MountedSlice& efi, const StorePlan& plan, const std::optional<ByteVector>& old) {
  const std::optional<uint64_t> space = efi.freeSpace();
  if (space) checkRoom(*space + (efi.isMirror() && old ? old->size() : 0), plan, old);
}

// What was done with the store.
struct StoreResult {
  bool isWritten = false;  // else the volume had it already
  std::string kept;        // folder of the backup
};

StoreResult putStore(const StoreOptions& options, const StorePlan& plan, UnmountedFile& file) {
  if (file.old() == plan.store) return {};
  checkRoom(file.room(), plan, file.old());
  return {true, file.replaceBy(plan.store, changeBackup(*options.backup))};
}

StoreResult putStore(const StoreOptions& options, const StorePlan& plan, const MountedSlice& efi) {
  const VolumeFolder folder =
      VolumeFolder(efi.path(), isCaseBlindDevice(plan.efi)).folder("EFI").folder("Microsoft").folder("Boot");
  const std::optional<std::string> spelled = folder.find(kStoreName);
  const std::string name = spelled.value_or(kStoreName);
  std::optional<ByteVector> old;
  if (spelled) {
    const std::optional<struct stat> status = folder.statusOf(name);
    if (status && isSameFile(*status, options.templateFile)) throw Failure(options.templateFile, "is the store itself");
    old = folder.content(name, kLargestStore);
  }
  FileReplacement replacement(folder, name);
  if (old == plan.store) return {};
  checkRoom(efi, plan, old);
  FileChange change;
  change.volume = plan.efi;
  change.path = folder.pathOf(name).substr(efi.path() == "/" ? 0 : efi.path().size());
  change.before = old;
  change.after = sha256(plan.store);
  FileBackup backup("boot configuration store of " + plan.disk, {change}, changeBackup(*options.backup));
  // A failure behind this line may leave the new store.
  replacement.replaceBy(plan.store, [&] { backup.keep(); });
  return {true, backup.keep()};
}

StoreResult putStore(const StoreOptions& options, const StorePlan& plan) {
  if (const auto file = UnmountedFile::open(plan.efi, kStoreFolder, kStoreName, kLargestStore)) {
    return putStore(options, plan, *file);
  }
  MountedSlice efi(plan.efi);
  const StoreResult result = putStore(options, plan, efi);
  efi.finish("the new store");
  return result;
}

void writeStore(const StoreOptions& options, const StorePlan& plan) {
  finishInterruptedChanges(plan.efi);
  const StoreResult result = putStore(options, plan);
  const std::string disk = printable(options.disk);
  if (result.isWritten) {
    std::printf("Store      written to slice 1 of %s and read back\n", disk.c_str());
  } else {
    std::printf("Store      on slice 1 of %s already, not written\n", disk.c_str());
  }
  std::printf("Partition  %s\nDisk       %s\n", guidText(plan.identity.partitionGUID->data()).c_str(),
              guidText(plan.identity.diskGUID->data()).c_str());
  printUndo(result.kept);
}

}  // namespace

void addBootStoreCommand(Command& top, int& status) {
  const auto options = std::make_shared<StoreOptions>();
  const auto start = std::make_shared<WindowsStartOptions>();
  const auto fromWindows = std::make_shared<bool>(false);
  Command command = top.addCommand(
      "bcd", "Put a Windows boot configuration store, or all boot files of a Windows, on the EFI System Partition");
  command.addOption("DISK", options->disk, "Whole disk or disk-image file").completes(ValueKind::disk).required();
  command.addOption("--partition", options->partition, "GPT entry of the Windows volume")
      .completes(ValueKind::partition)
      .required()
      .within(1, 128);
  Option templateFile =
      command.addOption("--template", options->templateFile, "The prepared store").completes(ValueKind::file);
  Option mode = command.addOption("--mode", options->mode,
                                  "What to set in the template: auto, every device; standard, mdt or sccm, the "
                                  "places of a prepared template");
  mode.named(kModes).needs(templateFile);
  Option source = command.addFlag("--from-windows", *fromWindows,
                                  "Make the store from the Windows volume's own template, and copy its boot files");
  source.excludes(templateFile).excludes(mode);
  command
      .addChoice("--firmware", start->firmware, {{"efi", StartFirmware::efi}, {"bios", StartFirmware::bios}},
                 "What the files are for: efi, on the EFI System Partition; bios, on the Windows volume")
      .needs(source);
  command.addOption("--description", start->description, "Of Windows in the boot menu")
      .completes(ValueKind::text)
      .showDefault()
      .needs(source);
  const Option dryRun =
      command.addFlag("--dry-run", options->dryRun, "Show what would be written; mount and write nothing");
  command.addFlag("--json", options->json, "Show it as JSON").needs(dryRun);
  options->backup = addBackupOptions(command);
  command.addFlag("--force", options->force,
                  "Take a template that does not look like one for the mode, and a damaged GPT");
  command.setExamples({"vorlix bcd mac.img --partition 3 --template BCD --mode standard --dry-run",
                       "vorlix bcd /dev/sda --partition 4 --from-windows"});
  command.setAction([options, start, fromWindows, templateFile, mode, &status] {
    if (!*fromWindows && !templateFile.isGiven()) refuseWithout("--template or --from-windows");
    if (!*fromWindows && !mode.isGiven()) refuseWithout("--mode");
    const LibraryLog log;  // look-ups write to it
    if (*fromWindows) {
      start->disk = options->disk;
      start->partition = options->partition;
      start->dryRun = options->dryRun;
      start->json = options->json;
      start->force = options->force;
      start->backup = changeBackup(*options->backup);
      status = putWindowsStart(*start);
      return;
    }
    const StorePlan plan = planStore(*options);
    if (options->dryRun) {
      options->json ? printDryRunJson(*options, plan) : printDryRun(*options, plan);
      status = kChangeNeeded;
      return;
    }
    writeStore(*options, plan);
    status = kDone;
  });
}

}  // namespace vorlix::tool
