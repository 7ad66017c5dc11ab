// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/Platform.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include <Vorlix/BootSectors.h>
#include <Vorlix/PartitionRecords.h>
#include "Arguments.h"
#include "Log.h"
#include "LogPlaces.h"
#include "OpenDevices.h"

using vorlix::DeviceAccess;
using vorlix::DeviceHandle;
using vorlix::DeviceLock;
using vorlix::logMessage;
using vorlix::orEmpty;
using vorlix::writeWhole;

namespace {

// Reads one word from standard input. Only its first character counts.
bool terminalSaysYes() {
  std::fflush(stdout);
  char answer[2] = {};
  return std::scanf("%1s", answer) == 1 && answer[0] == 'y';
}

bool confirmSharedAccess(const char* device) {
  std::printf("Cannot get exclusive access to %s.  You'll need to reboot if you choose to continue.  Continue? <y/n> ",
              device);
  return terminalSaysYes();
}

std::unique_ptr<DeviceHandle> openLocked(const char* device, DeviceLock lock) {
  return vorlix::platform().deviceFile->open(device, DeviceAccess::readWrite, lock);
}

// For an offset that no stream can reach, moves to a position where nothing can be read.
void seekStream(FILE* stream, uint64_t offset) {
  constexpr auto kLargestOffset = static_cast<uint64_t>(std::numeric_limits<off_t>::max());
  static_cast<void>(fseeko(stream, static_cast<off_t>(std::min(offset, kLargestOffset)), SEEK_SET));
}

// Reads the first 446 bytes of a file. Zeros replace the missing bytes of a shorter file, which is common because boot
// code itself has 440 bytes. Returns false if the file cannot be opened or read.
bool readBootCode(const char* path, uint8_t* bytes) {
  const vorlix::Stream file(std::fopen(path, "rbe"));
  if (!file) return false;
  const size_t count = std::fread(bytes, 1, vorlix::kBootCodeSize, file.get());
  std::fill(bytes + count, bytes + vorlix::kBootCodeSize, uint8_t{0});
  return std::ferror(file.get()) == 0;
}

// Reads the disk's MBR and builds the MBR for its GPT. Returns false if there is no GPT.
bool readTables(FILE* stream, const char* device, uint32_t partition, int guard, PartitionTable& fresh,
                PartitionTable& disk) {
  logMessage("Reading BIOS partition table line:%i\n", vorlix::kPlaceReadingMBR);
  uint32_t active = 0;
  read_bios_partition_table(stream, &disk, &active);

  const uint64_t blockSize = getblocksize(device);
  logMessage("Blocksize is %li\n", static_cast<long>(blockSize));
  seekStream(stream, blockSize);
  logMessage("Reading GPT Header%s\n", "");
  GPTHeader header = {};
  read_gpt_header(stream, &header);
  if (header.signature != vorlix::kGPTSignature) {
    logMessage("Invalid GPT signature. Make sure this disk uses the GPT partitioning scheme.  Signature: %08llx",
               static_cast<unsigned long long>(header.signature));
    return false;
  }

  seekStream(stream, vorlix::entriesOffset(header, blockSize));
  header.number_of_entries = vorlix::boundedEntryCount(header);
  std::vector<GPTEntry> entries(header.number_of_entries);
  logMessage("Reading GPT%s\n", "");
  read_gpt(stream, &fresh, entries.data(), &header, partition != 0 ? partition : active, guard);
  return true;
}

}  // namespace

bool vorlix::drawSerial(Serial& serial) {
  const Stream source{std::fopen("/dev/random", "rbe")};
  if (!source) return false;
  std::setvbuf(source.get(), nullptr, _IONBF, 0);  // reads no more bytes than needed
  return std::fread(serial.data(), 1, serial.size(), source.get()) == serial.size();
}

int update_mbr_and_partition(const char* device, const char* boot_code, uint32_t partition, uint32_t id,
                             const char* volume, int guard, uint32_t start) try {
  device = orEmpty(device);
  volume = orEmpty(volume);
  logMessage("Updating MBR and Partition%s", "");
  logMessage("NTFS Partition: %s", volume);
  verbose_flag = 0;
  if (id != 0 && partition == 0) {
    logMessage("Can't change parition ID: no partition number specified.%s", "");
    return -1;
  }
  if (id > 0xFF) {
    logMessage("Can't change parition ID: id must be between 0x00 and 0xFF.%s", "");
    return -1;
  }

  logMessage("Opening device %s\n", device);
  vorlix::Stream stream = vorlix::openDeviceForReading(device);
  if (!stream) {
    logMessage("Error opening device file.%s", "");
    return -1;
  }
  PartitionTable fresh = {};
  PartitionTable disk = {};
  if (!readTables(stream.get(), device, partition, guard, fresh, disk)) return -1;
  stream.reset();

  const bool namesSlot = partition >= 1 && partition <= vorlix::kSlotCount;
  if (id != 0 && guard == 0 && namesSlot) fresh.parts[partition - 1].type = static_cast<uint8_t>(id);

  logMessage("Checking MBR to see if it needs to be updated.%s\n", "");
  if (ComparePartitionTables(fresh.parts, disk.parts) == -1) {
    logMessage("MBR needs to be updated.%s\n", "");
    logMessage("writing bios%s\n", "");
    print_bios_partition_table(&fresh);
    write_new_gpt(1, device, boot_code, &fresh);
  } else {
    logMessage("MBR does not need to be updated%s\n", "");
  }

  if (!namesSlot || guard != 0) return 0;
  logMessage("Updating the FAT/NTFS start sector offset...%s\n", "");
  logMessage("start sector is %i\n", static_cast<int>(start));
  const int result = update_start_sector(1, 0, start, 0, volume);
  logMessage(result == 0 ? "Update sector offset done.%s\n" : "could not update start sector.%s\n", "");
  return result;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return -1;
}

void write_new_gpt(int non_interactive, const char* device, const char* boot_code, const PartitionTable* table) try {
  device = orEmpty(device);
  logMessage("Writing new GPT on device %s.", device);
  if (non_interactive == 0) {
    std::printf("Are you sure you want to write out a new partition table? <y/n> ");
    if (!terminalSaysYes()) {
      std::printf("Exiting without writing.");
      return;
    }
  }

  logMessage("Opening device with exclusive lock.%s", "");
  std::unique_ptr<DeviceHandle> handle = openLocked(device, DeviceLock::exclusive);
  if (!handle) {
    logMessage("Failed to open device.%s", "");
    if (non_interactive == 0 && !confirmSharedAccess(device)) {
      std::printf("Exiting without writing.");
      return;
    }
    logMessage("Opening device with shared lock.%s", "");
    handle = openLocked(device, DeviceLock::shared);
    if (!handle) {
      // "%{errono}d" is not a conversion. The log has always contained it unchanged and never the number.
      logMessage("Error trying to open device %s. Aborting.", "%{errono}d");
      return;
    }
  }
  logMessage("Device opened%s", "");

  if (boot_code == nullptr) {
    logMessage("No MBR file. Aborting%s", "");
    vorlix::keepOpen(std::move(handle));
    return;
  }
  logMessage("Opening MBR file at path %s", boot_code);
  std::array<uint8_t, vorlix::kBootCodeSize> code = {};
  if (!readBootCode(boot_code, code.data())) {
    // Hosts rely on this exit: without boot code, a disk that is half deployed must not look finished.
    logMessage("Error opening MBR file. Aborting%s", "");
    std::exit(-1);
  }
  if (table->signature != vorlix::kMBRSignature) {
    logMessage(
        "Signature is not AA55. Writing this would cause the partition table to be unreadable. Aborting. line:%i",
        vorlix::kPlaceBadSignature);
    vorlix::keepOpen(std::move(handle));
    return;
  }
  logMessage("Writing signature of %02x", static_cast<unsigned>(table->signature));
  const vorlix::Sector sector = vorlix::makeSector0(code, table->parts, table->signature);

  if (table->parts[0].type != vorlix::kProtectiveType) {
    logMessage(
        "Type of first partition in LBA 0 is not 0xEE.  Writing this would cause the partition table to be unreadable. "
        "Aborting. line:%i",
        vorlix::kPlaceNotProtective);
  } else if (writeWhole(*handle, sector.data(), sector.size(), 0)) {
    // Callers read the sector back if they need to know the result.
    static_cast<void>(handle->sync());
  }
  static_cast<void>(handle->close());
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
}

int update_start_sector(int non_interactive, uint64_t /*unused1*/, uint32_t start, uint64_t /*unused2*/,
                        const char* volume) try {
  volume = orEmpty(volume);
  std::unique_ptr<DeviceHandle> device = openLocked(volume, DeviceLock::exclusive);
  if (!device) {
    if (non_interactive == 0 && !confirmSharedAccess(volume)) {
      logMessage("Exiting without writing line:%i\n", vorlix::kPlaceDeclined);
      logMessage("exiting without writing line:%i\n", vorlix::kPlaceDeclinedAgain);
      return -1;
    }
    device = openLocked(volume, DeviceLock::shared);
    if (!device) {
      logMessage("error writing %s\n", volume);
      logMessage("error while opening file to write line:%i", vorlix::kPlaceOpenFailed);
      return -1;
    }
  }

  const std::array<uint8_t, 4> field = vorlix::hiddenSectorsBytes(start);
  logMessage("writing out %02X %02X %02X %02X", field[0], field[1], field[2], field[3]);
  logMessage("Updating start sector offset on %s\n", volume);
  if (!writeWhole(*device, field.data(), field.size(), vorlix::kHiddenSectorsOffset)) {
    std::perror("Failed to write 4 byte start sector");
    return -1;
  }

  // If the source fails, the serial number is not random; nothing here depends on that.
  vorlix::Serial serial = {};
  static_cast<void>(vorlix::drawSerial(serial));
  logMessage("Updating UUID line:%i\n", vorlix::kPlaceUpdatingUUID);
  if (!writeWhole(*device, serial.data(), serial.size(), vorlix::kNTFSSerialOffset)) {
    std::perror("Failed to write 8 byte uuid");
    return -1;
  }
  if (device->sync() != 0) {
    std::perror("Failed to bring the boot sector to the device");
    return -1;
  }
  static_cast<void>(device->close());
  return 0;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return -1;
}

int kbhit() {
  // poll() does not work for terminals and other devices on every system.
  fd_set input;
  FD_ZERO(&input);
  FD_SET(STDIN_FILENO, &input);
  timeval noTime = {};
  return select(STDIN_FILENO + 1, &input, nullptr, nullptr, &noTime) > 0 ? 1 : 0;
}
