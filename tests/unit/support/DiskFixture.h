// SPDX-License-Identifier: Apache-2.0
//
// A simulated machine with a registry and volumes for the tests of device identity, mounting and boot files.
#pragma once

#include <Vorlix/platform/DiskArbitration.h>
#include <fcntl.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "FlatFixture.h"

namespace vorlix::test {

using ByteVector = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

// Two identifiers as text and as bytes, written out by hand in the mixed-endian order of GPT disks and Windows stores.
inline constexpr const char* kPartitionText = "00112233-4455-6677-8899-AABBCCDDEEFF";
inline const ByteVector kPartitionBytes = {0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66,
                                           0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
inline constexpr const char* kDiskText = "C12A7328-F81F-11D2-BA4B-00A0C93EC93B";
inline const ByteVector kDiskBytes = {0x28, 0x73, 0x2A, 0xC1, 0x1F, 0xF8, 0xD2, 0x11,
                                      0xBA, 0x4B, 0x00, 0xA0, 0xC9, 0x3E, 0xC9, 0x3B};

// Journal lines of a wait for disk arbitration.
inline constexpr const char* kSchedule = "schedule kCFRunLoopDefaultMode";
inline constexpr const char* kRun = "run kCFRunLoopDefaultMode 100";

/// Returns the start of a GPT header whose disk GUID is kDiskBytes: 56 bytes, then the GUID.
inline ByteVector headerWithDiskGUID() {
  ByteVector header = {'E', 'F', 'I', ' ', 'P', 'A', 'R', 'T'};
  header.resize(56, 0xA5);
  header.insert(header.end(), kDiskBytes.begin(), kDiskBytes.end());
  return header;
}

/// Returns pseudo-random bytes in which a misplaced piece would show. Each call returns the same bytes.
inline ByteVector patternBytes(size_t count, uint32_t seed = 1) {
  ByteVector bytes(count);
  uint32_t state = seed;
  for (uint8_t& byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<uint8_t>(state >> 24);
  }
  return bytes;
}

inline ByteVector bytesOf(const std::string& path) {
  const std::string content = contentOf(path);
  return {content.begin(), content.end()};
}

inline ByteVector slice(const ByteVector& bytes, size_t offset, size_t count) {
  const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
  return {from, from + static_cast<std::ptrdiff_t>(count)};
}

/// Returns the number of open descriptors of this process.
inline int openDescriptors() {
  int count = 0;
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) != -1) ++count;
  }
  return count;
}

inline Dictionary dictionaryOf(std::vector<std::pair<std::string, Value>> values) {
  Dictionary dictionary;
  for (auto& [key, value] : values) dictionary.set(key, value);
  return dictionary;
}

inline Value textValue(const char* text) {
  return Value(std::string(text));
}

class DiskTest : public FlatTest {
 protected:
  /// Adds a registry entry below `parent`, or below the root, in the service plane.
  RegistryEntryID addService(const std::string& name, const Dictionary& properties,
                             std::optional<RegistryEntryID> parent = std::nullopt,
                             const std::string& className = "IOMedia") {
    return machine.addRegistryEntry(name, className, properties, {{kServicePlane, parent ? *parent : root()}});
  }

  /// Returns the entry at the top of both planes.
  RegistryEntryID root() {
    if (!root_) {
      root_ = machine.addRegistryEntry("Root", "IORegistryEntry", {},
                                       {{kServicePlane, std::nullopt}, {kDeviceTreePlane, std::nullopt}});
    }
    return *root_;
  }

  /// Adds a volume to `device`, by default not mounted.
  void addVolume(const std::string& device, const std::string& mountPath, bool mounted = false) {
    SimulatedVolume volume;
    volume.kind = "msdos";
    volume.name = "EFI";
    volume.mountPath = mountPath;
    volume.mounted = mounted;
    machine.setVolume(device, volume);
  }

  /// Returns the journal's lines that begin with one of `beginnings`.
  Lines journalOf(const std::vector<std::string_view>& beginnings) const {
    Lines result;
    for (const std::string& line : machine.journal()) {
      for (const std::string_view beginning : beginnings) {
        if (std::string_view(line).substr(0, beginning.size()) == beginning) {
          result.push_back(line);
          break;
        }
      }
    }
    return result;
  }

  Lines mountsAndUnmounts() const { return journalOf({"mount ", "unmount "}); }

  /// Returns the lines about opening, reading, writing, syncing and closing devices.
  Lines deviceLines() const { return journalOf({"open ", "read ", "write ", "sync ", "close "}); }

  void makeFolder(const std::string& name) const { std::filesystem::create_directories(folder / name); }

 private:
  std::optional<RegistryEntryID> root_;
};

}  // namespace vorlix::test
