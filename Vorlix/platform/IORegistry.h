// SPDX-License-Identifier: Apache-2.0
/// @file
/// Port: the I/O registry: the machine's devices with their properties, as a tree in each of several planes.
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
inline constexpr KernReturn kKernSuccess = 0;  ///< success
inline constexpr KernReturn kKernFailure = 5;  ///< any failure

/// A token for calls to the registry.
using MasterPort = uint32_t;

// Planes.
inline constexpr const char* kServicePlane = "IOService";        ///< where services are below what provides them
inline constexpr const char* kDeviceTreePlane = "IODeviceTree";  ///< the hardware as the firmware describes it

/// One device or driver. It is valid as long as somebody holds it.
class RegistryEntry {
 public:
  virtual ~RegistryEntry() = default;

  /// Returns one property. Absent if the entry does not have it.
  virtual std::optional<Value> property(const std::string& key) = 0;

  /// Gets all properties. @return a code other than 0 if they cannot be read; `properties` does not change then.
  virtual KernReturn copyProperties(std::optional<Dictionary>& properties) = 0;

  /// Gets the entry above this one in a plane. @return a code other than 0 if there is none; `parent` is null then.
  virtual KernReturn parent(const std::string& plane, std::shared_ptr<RegistryEntry>& parent) = 0;

  /// Gets the path in a plane, "<plane>:/...". @return a code other than 0 if the entry is not in that plane.
  virtual KernReturn path(const std::string& plane, std::string& path) = 0;
};

/// Returns entries one by one.
class RegistryIterator {
 public:
  virtual ~RegistryIterator() = default;

  /// Returns the next entry, or null at the end.
  virtual std::shared_ptr<RegistryEntry> next() = 0;
};

/// The conditions of a search for services. All that are given must be met.
struct RegistryMatching {
  std::optional<std::string> className;  ///< such as "IOMedia"; an entry of a derived class matches as well
  std::optional<std::string> bsdName;    ///< such as "disk0s1", without "/dev/"
  Dictionary properties;                 ///< properties with equal values
};

/// Port: walks and matches the entries of the registry.
class IORegistry {
 public:
  virtual ~IORegistry() = default;

  /// Gets the port for the other calls. They also work with 0, the port after a failure.
  virtual KernReturn masterPort(MasterPort& port) = 0;

  /// Returns the BSD name that the registry has for a device whose name is given with or without "/dev/". A name that
  /// no device has is returned without "/dev/". Call this before a walk that searches for the device: systems without a
  /// list of their disk-image files only show image files that were named before.
  virtual std::string bsdNameFor(const std::string& device) {
    constexpr std::string_view kDeviceFolder = "/dev/";
    return device.starts_with(kDeviceFolder) ? device.substr(kDeviceFolder.size()) : device;
  }

  /// Gets an iterator over all entries of a plane, from the root down.
  virtual KernReturn createIterator(MasterPort port, const std::string& plane,
                                    std::shared_ptr<RegistryIterator>& iterator) = 0;

  /// Gets the services that match. If none does, the call succeeds and the iterator is empty or null.
  virtual KernReturn matchingServices(MasterPort port, const RegistryMatching& matching,
                                      std::shared_ptr<RegistryIterator>& iterator) = 0;
};

}  // namespace vorlix
