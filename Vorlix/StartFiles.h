// SPDX-License-Identifier: Apache-2.0
/// @file
/// The files that a start of Windows needs outside its own volume, from what the volume has of them: which files and
/// folders are to be put where, and the boot configuration store. docs/boot-store.md has the layout and its sources.
///
/// planStartFiles() reads and decides; it writes nothing. A caller writes the plan, by whatever means it has.
#pragma once

#include <Vorlix/BootStore.h>
#include <Vorlix/foundation/Export.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vorlix {

enum class StartFirmware {
  efi,  ///< the files go to the EFI System Partition
  bios  ///< the files go to the Windows volume itself
};

/// The files of a volume, for reading. Paths begin with "/", have the volume's spelling, and are empty for the root.
class FilesOfVolume {
 public:
  struct Item {
    enum class Kind { file, folder, other };

    std::string name;  ///< UTF-8
    Kind kind = Kind::file;
    uint64_t size = 0;  ///< of a file, in bytes
  };

  virtual ~FilesOfVolume() = default;

  /// Returns the items of a folder. @param reason  set if they cannot be read.
  virtual std::vector<Item> itemsIn(const std::string& folder, std::optional<std::string>& reason) const = 0;

  /// Reads a whole file. @return why it cannot be read; absent for success.
  virtual std::optional<std::string> read(const std::string& file, std::vector<uint8_t>& bytes) const = 0;
};

struct StartFilesRequest {
  StartFirmware firmware = StartFirmware::efi;
  const FilesOfVolume* windows = nullptr;
  const FilesOfVolume* system = nullptr;  ///< the volume that gets the files; for bios the same as `windows`
  StoreTargets partitions;                ///< as the store will identify the two volumes
  std::string description;                ///< of the loader, in the boot menu: "Windows"
};

/// A file that is missing on the system partition or has other content there.
struct StartFile {
  std::string path;                            ///< on the system partition, in its spelling
  std::string source;                          ///< on the Windows volume; empty for the store
  std::vector<uint8_t> bytes;                  ///< at most 64 MiB
  std::optional<std::vector<uint8_t>> before;  ///< what it has now; absent for a new file
};

struct StartFilesPlan {
  std::vector<std::string> folders;  ///< to be made, a folder before those in it
  std::vector<StartFile> files;      ///< to be written in this order: the store is the last
  size_t present = 0;                ///< files that are there already, with the same content
  std::vector<std::string> kept;     ///< files of others that stay, and so keep a file of Windows from its place
  std::vector<StoreObject> objects;  ///< of the new store
  std::string store;                 ///< path of the store

  bool isEmpty() const { return folders.empty() && files.empty(); }
};

/// Plans what a start of the Windows on a volume needs. Running the plan and planning again gives an empty plan.
/// @return why that is not possible: "the volume has no Windows/Boot/EFI"; absent for success.
VORLIX_EXPORT std::optional<std::string> planStartFiles(const StartFilesRequest& request, StartFilesPlan& plan);

/// What the store of one installed Windows has.
struct WindowsStart {
  StartFirmware firmware = StartFirmware::efi;
  StoreTargets partitions;
  std::string description;
  std::string windowsFolder = "Windows";  ///< in the volume's spelling
  bool hasMemoryTester = true;            ///< among the files
};

/// Returns the changes that make the store of an installed Windows from the objects of its template: the boot manager,
/// a loader, a resume object and the memory tester. Identifiers of new objects follow from the partition, so that the
/// same partition gives the same store.
VORLIX_EXPORT std::vector<StoreEdit> windowsStoreEdits(const std::vector<StoreObject>& templateObjects,
                                                       const WindowsStart& start);

}  // namespace vorlix
