// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/QDSDiskFunctions.h>
#include <Vorlix/QDSDiskRegistry.h>
#include <Vorlix/foundation/CaseFolding.h>
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/DiskArbitration.h>
#include <Vorlix/platform/IORegistry.h>
#include <Vorlix/platform/Platform.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "Arguments.h"
#include "Log.h"
#include "LogPlaces.h"
#include "foundation/GUIDPartitionTable.h"

using vorlix::KernReturn;
using vorlix::kKernFailure;
using vorlix::kKernSuccess;
using vorlix::logMessage;
using vorlix::orEmpty;
using vorlix::RegistryEntry;
using vorlix::RegistryIterator;

namespace {

constexpr const char* kBSDName = "BSD Name";
constexpr const char* kDeviceFolder = "/dev/";
constexpr size_t kTextBufferSize = 1024;  // size of the buffers of media_type() and disk_from_slice()
constexpr size_t kUUIDTextLimit = 63;     // longer than any identifier
constexpr int kMediaTypeLevels = 9;
constexpr size_t kGUIDSize = 16;
constexpr uint64_t kDiskGUIDOffset = 56;  // in a GPT header
constexpr size_t kGPTSignatureSize = 8;

// For each byte of a GUID, the offset of its two digits in the 32 digits of the text: three groups in little-endian
// order, then the order of the text.
constexpr std::array<uint8_t, kGUIDSize> kDigitPlaces = {6, 4, 2, 0, 10, 8, 14, 12, 16, 18, 20, 22, 24, 26, 28, 30};

std::string registryName(const char* name) {
  return vorlix::platform().ioRegistry->bsdNameFor(orEmpty(name));
}

// If the registry cannot be reached, only a message is logged; the lookups that follow find nothing.
vorlix::MasterPort openServicePlane() {
  vorlix::IORegistry& registry = *vorlix::platform().ioRegistry;
  vorlix::MasterPort port = 0;
  if (const KernReturn code = registry.masterPort(port); code != kKernSuccess) {
    logMessage("IOMasterPort() failed: %x\n", static_cast<unsigned>(code));
  }
  std::shared_ptr<RegistryIterator> iterator;
  if (const KernReturn code = registry.createIterator(port, vorlix::kServicePlane, iterator); code != kKernSuccess) {
    logMessage("IORegistryCreateIterator() failed: %x\n", static_cast<unsigned>(code));
  }
  return port;
}

KernReturn servicesOfDevice(const char* name, std::shared_ptr<RegistryIterator>& services) {
  const vorlix::MasterPort port = openServicePlane();
  vorlix::RegistryMatching matching;
  matching.bsdName = registryName(name);
  return vorlix::platform().ioRegistry->matchingServices(port, matching, services);
}

std::shared_ptr<RegistryEntry> nextEntry(const std::shared_ptr<RegistryIterator>& iterator) {
  return iterator ? iterator->next() : nullptr;
}

std::shared_ptr<RegistryEntry> parentOf(RegistryEntry& entry) {
  std::shared_ptr<RegistryEntry> parent;
  return entry.parent(vorlix::kServicePlane, parent) == kKernSuccess ? parent : nullptr;
}

std::optional<vorlix::Dictionary> propertiesOf(RegistryEntry& entry) {
  std::optional<vorlix::Dictionary> properties;
  return entry.copyProperties(properties) == kKernSuccess ? properties : std::nullopt;
}

std::optional<std::string> mediumTypeOf(RegistryEntry& entry) {
  const std::optional<vorlix::Value> value = entry.property("Device Characteristics");
  const auto* characteristics = value ? std::get_if<std::shared_ptr<const vorlix::Dictionary>>(&*value) : nullptr;
  if (characteristics == nullptr || !*characteristics) return std::nullopt;
  return (*characteristics)->text("Medium Type");
}

int32_t partitionNumber(const vorlix::Dictionary& properties) {
  const std::optional<int64_t> number = properties.integer("Partition ID");
  int16_t result = 0;
  if (number && *number >= std::numeric_limits<int16_t>::min() && *number <= std::numeric_limits<int16_t>::max()) {
    result = static_cast<int16_t>(*number);
  } else {
    logMessage("Could not get number from CFNumber %i", vorlix::kPlaceNoPartitionNumber);
  }
  logMessage("Found partition number: %d", static_cast<int>(result));
  return result;
}

// Converts an identifier of the registry to bytes. Returns its text after the conversion, which removes the dashes.
std::string convertIdentifier(std::string text, uint8_t* guid) {
  text.resize(std::min(text.size(), kUUIDTextLimit));
  convert_uuid_string_to_bytes(text.data(), guid);
  text.resize(std::strlen(text.c_str()));
  return text;
}

struct WholeDisk {
  int32_t result = 0;
  std::optional<std::string> name;  // can be absent even if the result is success
};

WholeDisk wholeDiskOf(const char* name, bool withFolder) {
  const auto session = vorlix::platform().diskArbitration->createSession();
  if (!session) {
    std::printf("session NULL");
    return {};
  }
  const auto disk = session->diskFromBSDName(orEmpty(name));
  if (!disk) {
    std::printf("disk NULL");
    return {};
  }
  const auto whole = disk->wholeDisk();
  const std::optional<std::string> bareName = whole ? whole->bsdName() : std::nullopt;
  if (!bareName) return {-1, std::nullopt};
  return {0, withFolder ? kDeviceFolder + *bareName : *bareName};
}

// Looks up the identifier of a partition's disk: that of the partition's parent in the registry or, if it has none, the
// one in the disk's GPT header. `working` is the text of the partition's identifier without dashes. It is used as the
// path of a disk whose name cannot be found out, so that nothing is opened.
int32_t lookUpDiskGUID(RegistryEntry& partition, const char* name, std::string working, uint8_t* guid) {
  const std::shared_ptr<RegistryEntry> parent = parentOf(partition);
  const std::optional<vorlix::Dictionary> properties = parent ? propertiesOf(*parent) : std::nullopt;
  if (const std::optional<std::string> uuid = properties ? properties->text("UUID") : std::nullopt) {
    logMessage("disk UUID is %s\n", convertIdentifier(*uuid, guid).c_str());
    return 0;
  }
  WholeDisk whole = wholeDiskOf(name, true);
  if (whole.result != 0) {
    logMessage("error getting disk from slick %s\n", orEmpty(name));
    return -1;
  }
  if (whole.name) working = *whole.name;
  static_cast<void>(disk_guid(working.c_str(), guid));  // without a GPT the caller's bytes stay unchanged
  if (guid == nullptr) {
    logMessage("error converting %s to binary GUID\n", working.c_str());
    return -1;
  }
  return 0;
}

}  // namespace

int32_t MyFindEjectableMedia(std::shared_ptr<RegistryIterator>* iterator) try {
  vorlix::IORegistry& registry = *vorlix::platform().ioRegistry;
  vorlix::MasterPort port = 0;
  if (const KernReturn code = registry.masterPort(port); code != kKernSuccess) {
    std::printf("IOMasterPort returned %d\n", code);
    return code;
  }
  vorlix::RegistryMatching matching;
  matching.className = "IOUserClientClass";  // not a storage class; hosts expect no result
  std::shared_ptr<RegistryIterator> services;
  const KernReturn code = registry.matchingServices(port, matching, services);
  if (code == kKernSuccess && iterator != nullptr) {
    *iterator = services;
    return kKernSuccess;
  }
  std::printf("No ejectable CD media found.\n kernResult = %d\n", code);
  return code;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return kKernFailure;
}

int32_t MyGetDeviceFilePath(const std::shared_ptr<RegistryEntry>& service, char* path, size_t size) try {
  if (path == nullptr || size == 0) return kKernFailure;
  path[0] = '\0';
  if (!service) return kKernFailure;
  const std::optional<vorlix::Value> value = service->property(kBSDName);
  const std::string* name = value ? std::get_if<std::string>(&*value) : nullptr;
  const size_t folderLength = std::strlen(kDeviceFolder);
  if (name == nullptr || size <= folderLength) return kKernFailure;
  std::memcpy(path, kDeviceFolder, folderLength + 1);
  const bool isASCII = std::all_of(name->begin(), name->end(), [](char letter) { return (letter & 0x80) == 0; });
  if (!isASCII || name->size() >= size - folderLength) return kKernFailure;
  std::memcpy(path + folderLength, name->c_str(), name->size() + 1);
  return kKernSuccess;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return kKernFailure;
}

int32_t partitionForDeviceIdentifier(const char* name) try {
  const int32_t number = partitionForDeviceIdentifierOnGivenPlane(name, vorlix::kDeviceTreePlane);
  return number != 0 ? number : partitionForDeviceIdentifierOnGivenPlane(name, vorlix::kServicePlane);
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return 0;
}

int32_t partitionForDeviceIdentifierOnGivenPlane(const char* name, const char* plane) try {
  // "%{errno}d" is not a conversion. The log has always contained it unchanged and never the code.
  constexpr const char* kNoConversion = "%{errno}d";
  logMessage("Getting partition number for identifier from IOKit%s", "");
  vorlix::IORegistry& registry = *vorlix::platform().ioRegistry;
  vorlix::MasterPort port = 0;
  if (registry.masterPort(port) != kKernSuccess) logMessage("IOMasterPort() failed with error %s", kNoConversion);
  // Before the iterator, which includes only image files named so far.
  const std::string wanted = vorlix::lowerCase(registryName(name));
  std::shared_ptr<RegistryIterator> iterator;
  if (registry.createIterator(port, orEmpty(plane), iterator) != kKernSuccess) {
    logMessage("IORegistryCreateIterator() failed with error %s", kNoConversion);
  }
  while (const std::shared_ptr<RegistryEntry> entry = nextEntry(iterator)) {
    const std::optional<vorlix::Dictionary> properties = propertiesOf(*entry);
    if (!properties) {
      logMessage("IORegistryEntryCreateCFProperties failed with error %s", kNoConversion);
      continue;
    }
    const std::optional<std::string> found = properties->text(kBSDName);
    if (!found || !properties->contains("Partition ID") || vorlix::lowerCase(*found) != wanted) continue;
    return partitionNumber(*properties);
  }
  return 0;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return 0;
}

int32_t media_type(const char* name, char* text) try {
  std::shared_ptr<RegistryIterator> services;
  if (servicesOfDevice(name, services) != kKernSuccess) return -1;
  int32_t result = -1;
  while (const std::shared_ptr<RegistryEntry> service = nextEntry(services)) {
    std::shared_ptr<RegistryEntry> ancestor = service;
    for (int level = 0; level < kMediaTypeLevels; ++level) {
      ancestor = parentOf(*ancestor);
      if (!ancestor) break;
      // The search does not stop here, because the type of the farthest ancestor counts.
      if (const std::optional<std::string> type = mediumTypeOf(*ancestor)) {
        if (text != nullptr) std::snprintf(text, kTextBufferSize, "%s", type->c_str());
        result = 0;
      }
    }
  }
  return result;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return -1;
}

int32_t lookup_disk_info(const char* name, uint8_t* disk_guid, uint8_t* partition_guid, int64_t* offset) try {
  std::shared_ptr<RegistryIterator> services;
  if (servicesOfDevice(name, services) != kKernSuccess) return 0;
  while (const std::shared_ptr<RegistryEntry> partition = nextEntry(services)) {
    const std::optional<vorlix::Dictionary> properties = propertiesOf(*partition);
    const std::optional<std::string> uuid = properties ? properties->text("UUID") : std::nullopt;
    if (!uuid) {
      logMessage("error getting uuid%s", "");
      return -1;
    }
    const std::string working = convertIdentifier(*uuid, partition_guid);
    logMessage("partition UUID is %s\n", working.c_str());
    const std::optional<int64_t> base = properties->integer("Base");
    if (base && offset != nullptr) *offset = *base;
    if (lookUpDiskGUID(*partition, name, working, disk_guid) != 0) return -1;
  }
  return 0;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return -1;
}

int32_t convert_uuid_string_to_bytes(char* text, uint8_t* bytes) {
  if (text == nullptr) return 0;
  remove_all_chars(text, '-');
  if (bytes == nullptr) return 0;
  const size_t length = std::strlen(text);
  for (size_t i = 0; i < kGUIDSize; ++i) {
    const size_t place = std::min<size_t>(kDigitPlaces[i], length);
    char pair[3] = {};
    std::copy_n(text + place, std::min<size_t>(2, length - place), pair);
    bytes[i] = static_cast<uint8_t>(std::strtol(pair, nullptr, 16));
  }
  return 0;
}

int32_t disk_from_slice(char* disk, const char* name, int32_t dev_prefix) try {
  const WholeDisk whole = wholeDiskOf(name, dev_prefix != 0);
  if (whole.name && disk != nullptr) std::snprintf(disk, kTextBufferSize, "%s", whole.name->c_str());
  return whole.result;
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return -1;
}

int32_t disk_guid(const char* device, uint8_t* guid) try {
  const char* const path = orEmpty(device);
  const auto handle =
      vorlix::platform().deviceFile->open(path, vorlix::DeviceAccess::readOnly, vorlix::DeviceLock::none);
  if (!handle) logMessage("Error opening %s\n", path);
  const uint64_t blockSize = getblocksize(path);
  if (!handle) return -1;
  std::array<uint8_t, kGPTSignatureSize> signature = {};
  const ssize_t count = handle->readAt(signature.data(), signature.size(), blockSize);
  if (guid != nullptr && count == static_cast<ssize_t>(signature.size()) && vorlix::hasGPTSignature(signature)) {
    std::array<uint8_t, kGUIDSize> bytes = {};
    if (handle->readAt(bytes.data(), bytes.size(), blockSize + kDiskGUIDOffset) == static_cast<ssize_t>(bytes.size())) {
      std::copy(bytes.begin(), bytes.end(), guid);
    }
  }
  return handle->close();
} catch (const std::exception& error) {
  vorlix::logException(__func__, error);
  return -1;
}

void remove_all_chars(char* text, char character) {
  if (text == nullptr) return;
  char* const end = text + std::strlen(text);
  *std::remove(text, end, character) = '\0';
}
