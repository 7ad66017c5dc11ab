// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the I/O registry, a tree of the machine's devices with properties, seen through planes.
#pragma once

#include <Vorlix/foundation/Value.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vorlix {

/// A kernel return code: 0 is success.
using KernReturn = int32_t;
inline constexpr KernReturn kKernSuccess = 0;
inline constexpr KernReturn kKernFailure = 5;

/// A token for talking to the registry.
using MasterPort = uint32_t;

// Planes.
inline constexpr const char* kServicePlane = "IOService";
inline constexpr const char* kDeviceTreePlane = "IODeviceTree";

/// One device or driver. Holding it keeps it valid; letting it go releases it.
class RegistryEntry {
 public:
  virtual ~RegistryEntry() = default;

  /// One property, or absent.
  virtual std::optional<Value> property(const std::string& key) = 0;

  /// All properties. @return a code other than 0, and `properties` untouched, when they cannot be read.
  virtual KernReturn copyProperties(std::optional<Dictionary>& properties) = 0;

  /// The entry above this one in a plane. @return a code other than 0 and null when there is none.
  virtual KernReturn parent(const std::string& plane, std::shared_ptr<RegistryEntry>& parent) = 0;

  /// The path in a plane, "<plane>:/...". @return a code other than 0 when the entry is not in that plane.
  virtual KernReturn path(const std::string& plane, std::string& path) = 0;
};

/// Hands out entries one by one.
class RegistryIterator {
 public:
  virtual ~RegistryIterator() = default;

  /// The next entry, or null at the end.
  virtual std::shared_ptr<RegistryEntry> next() = 0;
};

/// What services are looked for. Every condition that is given must hold.
struct RegistryMatching {
  std::optional<std::string> className;  ///< such as "IOMedia"; an entry of a derived class matches as well
  std::optional<std::string> bsdName;    ///< such as "disk0s1", without "/dev/"
  Dictionary properties;                 ///< properties with equal values
};

class IORegistry {
 public:
  virtual ~IORegistry() = default;

  /// Gets the port for the other calls. They go on working with a port that could not be had (0).
  virtual KernReturn masterPort(MasterPort& port) = 0;

  /// The BSD name under which the registry shows a device that somebody named with or without "/dev/". Ask for it
  /// before a walk that looks for the device: systems without a list of their disk-image files show those in a walk
  /// that were named. A name that no device has comes back without "/dev/".
  virtual std::string bsdNameFor(const std::string& device) {
    constexpr std::string_view kDeviceFolder = "/dev/";
    return device.starts_with(kDeviceFolder) ? device.substr(kDeviceFolder.size()) : device;
  }

  /// An iterator over all entries of a plane, from the root down.
  virtual KernReturn createIterator(MasterPort port, const std::string& plane,
                                    std::shared_ptr<RegistryIterator>& iterator) = 0;

  /// The services that match. No match gives an empty iterator (or null) and success.
  virtual KernReturn matchingServices(MasterPort port, const RegistryMatching& matching,
                                      std::shared_ptr<RegistryIterator>& iterator) = 0;
};

}  // namespace vorlix
