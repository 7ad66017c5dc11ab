// SPDX-License-Identifier: Apache-2.0
//
// The fields of a volume record.
#pragma once

#include <Vorlix/QDVolume.h>

#include <mutex>
#include <utility>

/// The fields of a record. One lock guards the object fields and is held only while a value is copied or swapped. A new
/// value is created before the lock is taken, and the old one is destroyed after the lock is released.
struct QDVolume::Fields {
  /// A shared value that can be appended to or, in a copy of a record, a fixed value of its own.
  template <typename Value>
  struct Growable {
    std::shared_ptr<Value> value;
    bool fixed = false;
  };

  template <typename Field>
  Field get(Field Fields::*field) const {
    const std::lock_guard guard(lock);
    return this->*field;
  }

  template <typename Field>
  void set(Field Fields::*field, Field value) {
    const std::lock_guard guard(lock);
    std::swap(this->*field, value);
  }

  mutable std::mutex lock;
  bool isBootable = false;
  bool isRemovable = false;
  bool isVM = false;
  bool showLine = false;
  bool hasWindows = false;
  bool hasWindows8orGreater = false;
  bool isWritable = false;
  int64_t filesystemSize = 0;
  std::shared_ptr<std::vector<std::shared_ptr<QDTaskWrapperWithBlocks>>> wrapperArray;

  // Guarded by the lock:
  Growable<std::vector<uint8_t>> mbr;
  Growable<std::string> partitionID;
  std::optional<std::string> filePath;
  std::optional<std::string> drivePath;
  std::optional<std::string> device;
  std::shared_ptr<std::string> info;
  std::optional<std::string> diskName;
  std::optional<vorlix::AttributedString> usageDescription;
  std::optional<std::string> vmUsername;
  std::optional<std::string> vmPassword;
  std::optional<std::string> humanSize;
  std::optional<std::string> fileSystemType;
  std::optional<std::string> freeSpace;
  std::optional<std::string> totalSize;
  std::optional<std::string> volumeType;
  std::optional<std::string> mediaSize;
  std::optional<vorlix::Number> foundWindowsVersion;
  std::optional<vorlix::Number> mediaSizeRaw;
  std::optional<vorlix::Number> mediaBlockSize;
  std::optional<vorlix::UUID> volumeUUID;
  std::optional<vorlix::UUID> mediaUUID;
  std::optional<vorlix::UUID> mediaContentUUID;
  std::optional<std::string> installedOS;
  std::optional<std::string> networkShare;
  std::optional<std::string> bootResourcePath;
  std::optional<std::string> bootMgrPath;
};
