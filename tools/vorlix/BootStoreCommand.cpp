// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/QDSDiskFunctions/StoreSlots.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Arbitration.h"
#include "Backup.h"
#include "Commands.h"
#include "Complaint.h"
#include "Failure.h"
#include "Files.h"
#include "Identity.h"
#include "LibraryLog.h"
#include "Text.h"

namespace vorlix::tool {
namespace {

constexpr size_t kLargestStore = size_t{64} * 1024 * 1024;
constexpr const char* kStorePath = "/EFI/Microsoft/Boot/BCD";

const std::map<std::string, int32_t> kModes = {{"standard", 0}, {"mdt", kStoreModeMDT}, {"sccm", kStoreModeSCCM}};

struct StoreOptions {
  std::string disk;
  uint32_t partition = 0;
  std::string templateFile;
  int32_t mode = 0;
  bool dryRun = false;
  std::string backupFolder;
};

struct StorePlan {
  std::string disk;       // as disk arbitration names it
  std::string partition;  // likewise
  std::string efi;        // likewise: slice 1
  Identity identity;
  ByteVector store;  // the template with the identifiers in place
  ByteVector original;
};

uint32_t wordAt(const ByteVector& bytes, int64_t offset) {
  if (offset < 0 || static_cast<uint64_t>(offset) + 4 > bytes.size()) return ~uint32_t{0};
  uint32_t value = 0;
  for (size_t i = 4; i > 0; --i) value = value << 8 | bytes[static_cast<size_t>(offset) + i - 1];
  return value;
}

// How boot configuration stores tell a partition: the partition GUID, the disk GUID 24 bytes on, and around them a 6
// (partition) at -0x10, the length 0x48 at -0x08 and 0 (GPT) or 1 (MBR) at 0x14.
bool isPartitionGUID(const ByteVector& store, int64_t offset) {
  return wordAt(store, offset - 0x10) == 6 && wordAt(store, offset - 0x08) == 0x48 && wordAt(store, offset + 0x14) <= 1;
}

// Some stores want the disk's GUID in the partition's place, too.
bool looksLikeIdentifierSlot(const ByteVector& store, const StoreSlot& slot) {
  constexpr int64_t kDiskGUID = 0x18;
  const int64_t offset = slot.offset;
  if (isPartitionGUID(store, offset)) return true;
  return slot.identifier == StoreIdentifier::disk && isPartitionGUID(store, offset - kDiskGUID);
}

void warnOfOddSlots(const StoreOptions& options, const ByteVector& store) {
  std::string odd;
  for (const StoreSlot& slot : storeSlots(options.mode)) {
    if (!looksLikeIdentifierSlot(store, slot)) odd += (odd.empty() ? "" : ", ") + std::to_string(slot.offset);
  }
  if (odd.empty()) return;
  complain(options.templateFile + ": warning: what stands at " + odd +
           " does not look like identifiers (a partition GUID, and a disk GUID 24 bytes on); is it the template for "
           "this mode?");
}

StorePlan planStore(const StoreOptions& options) {
  StorePlan plan;
  plan.original = readFile(options.templateFile, kLargestStore);
  plan.disk = bsdNameOf(options.disk);
  plan.efi = sliceNameOf(plan.disk, 1);
  plan.partition = bsdNameOf(sliceNameOf(options.disk, static_cast<uint32_t>(options.partition)));
  plan.identity = identify(plan.partition);
  if (!plan.identity.partitionGUID || !plan.identity.diskGUID) {
    throw Failure(plan.partition, "its partition and disk GUIDs are not known");
  }
  plan.store = plan.original;
  for (const StoreSlot& slot : storeSlots(options.mode)) {
    if (plan.store.size() < slot.offset + 16) plan.store.resize(slot.offset + 16);
    const auto& guid =
        slot.identifier == StoreIdentifier::partition ? *plan.identity.partitionGUID : *plan.identity.diskGUID;
    std::copy(guid.begin(), guid.end(), plan.store.begin() + slot.offset);
  }
  return plan;
}

void printDryRun(const StoreOptions& options, const StorePlan& plan) {
  std::printf("Dry run: nothing is mounted or opened for writing.\n\n");
  std::printf("%s would become %s on slice 1 of %s, with\n", printable(options.templateFile).c_str(), kStorePath + 1,
              printable(options.disk).c_str());
  std::printf("  partition GUID  %s\n  disk GUID       %s\n", guidText(plan.identity.partitionGUID->data()).c_str(),
              guidText(plan.identity.diskGUID->data()).c_str());
  std::printf("in these places:\n%s", differenceText(plan.original, plan.store, 0).c_str());
}

// Unmounts a slice if it is mounted. Returns why it stays mounted.
std::optional<std::string> unmountIfMounted(const std::string& slice) {
  if (!mountPointOf(slice)) return std::nullopt;
  const std::optional<Dissenter> refusal = tryUnmount(slice);
  if (!refusal) return std::nullopt;
  return reasonText(*refusal);
}

void unmountOrWarn(const std::string& slice) {
  if (const std::optional<std::string> reason = unmountIfMounted(slice)) {
    complain(slice + ": stays mounted: " + *reason);
  }
}

// The EFI System Partition, mounted for a look; unmounted again unless it was mounted before.
class MountedEFI {
 public:
  explicit MountedEFI(std::string slice) : slice_(std::move(slice)), wasMounted_(mountPointOf(slice_).has_value()) {
    if (wasMounted_) return;
    if (const auto refusal = tryMount(slice_, false)) throw Failure(slice_, reasonText(*refusal));
  }
  ~MountedEFI() {
    if (wasMounted_) return;
    try {
      unmountOrWarn(slice_);
    } catch (const std::exception& error) {
      complain(error.what());
    }
  }
  MountedEFI(const MountedEFI&) = delete;
  MountedEFI& operator=(const MountedEFI&) = delete;

  std::string storePath() const { return mountPointOf(slice_).value_or("") + kStorePath; }

 private:
  std::string slice_;
  bool wasMounted_;
};

// What stands in the place of the store. Absent where nothing does.
std::optional<ByteVector> contentOf(const std::filesystem::path& store) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(store, error)) return std::nullopt;
  return readFile(store, kLargestStore);
}

// A run that failed half-way leaves a part of the new store, which would start nothing.
void putBack(const std::string& slice, const std::optional<ByteVector>& old) {
  const std::optional<std::string> mounted = mountPointOf(slice);
  if (!mounted) return;
  const std::filesystem::path store = *mounted + kStorePath;
  std::error_code error;
  if (contentOf(store) == old) return;
  if (!old) {
    std::filesystem::remove(store, error);
    return;
  }
  std::ofstream file(store, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(old->data()), static_cast<std::streamsize>(old->size()));
  file.close();
  if (!file) complain(store.string() + ": the old store could not be put back");
}

void writeStore(const StoreOptions& options, const StorePlan& plan, const LibraryLog& log) {
  std::optional<ByteVector> old;
  {
    const MountedEFI efi(plan.efi);
    const std::filesystem::path store = efi.storePath();
    if (!std::filesystem::is_directory(store.parent_path())) {
      throw Failure(store.parent_path().string(), "no such folder on the EFI System Partition");
    }
    old = contentOf(store);
    if (!options.backupFolder.empty() && old) {
      const std::string name = std::filesystem::path(options.disk).filename().string() + "s1-BCD";
      std::printf("Saved      %s\n", printable(saveNamed(options.backupFolder, name, *old)).c_str());
      std::fflush(stdout);
    }
  }
  const int result = update_bcd(options.templateFile.c_str(), plan.disk.c_str(), plan.partition.c_str(), options.mode);
  if (result != 0) {
    log.print();
    putBack(plan.efi, old);
    unmountOrWarn(plan.efi);
    throw Failure(options.disk, "the boot configuration store could not be written", "see the log above");
  }
  // The library does not tell when its unmount was refused, and what is mounted need not be on the medium yet.
  if (const std::optional<std::string> reason = unmountIfMounted(plan.efi)) {
    throw Failure(plan.efi, *reason, "it stays mounted; the store is not known to be on the medium");
  }
  const MountedEFI efi(plan.efi);
  if (readFile(efi.storePath(), kLargestStore) != plan.store) {
    throw Failure(options.disk, "the boot configuration store is not what it should be", "it was written");
  }
  std::printf("Store      written to slice 1 of %s and read back\n", printable(options.disk).c_str());
  std::printf("Partition  %s\nDisk       %s\n", guidText(plan.identity.partitionGUID->data()).c_str(),
              guidText(plan.identity.diskGUID->data()).c_str());
}

}  // namespace

void addBootStoreCommand(CLI::App& app, int& status) {
  const auto options = std::make_shared<StoreOptions>();
  CLI::App* const command =
      app.add_subcommand("bcd", "Put a prepared Windows boot configuration store on the EFI System Partition");
  command->add_option("DISK", options->disk, "Whole disk or disk-image file")->required();
  command->add_option("--partition", options->partition, "GPT entry of the Windows volume")
      ->required()
      ->check(CLI::Range(1, 128));
  command->add_option("--template", options->templateFile, "The prepared store")->required();
  command->add_option("--mode", options->mode, "Layout of the template: standard, mdt or sccm")
      ->required()
      ->transform(CLI::CheckedTransformer(kModes));
  command->add_flag("--dry-run", options->dryRun, "Show what would be written; mount and write nothing");
  command->add_option("--backup", options->backupFolder, "Folder for the store that is replaced, saved before");
  command->callback([options, &status] {
    const LibraryLog log;
    const StorePlan plan = planStore(*options);
    warnOfOddSlots(*options, plan.original);
    if (options->dryRun) {
      printDryRun(*options, plan);
      status = kChangeNeeded;
      return;
    }
    writeStore(*options, plan, log);
    status = kDone;
  });
}

}  // namespace vorlix::tool
