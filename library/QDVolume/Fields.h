// SPDX-License-Identifier: Apache-2.0
//
// What a volume record holds.
#pragma once

#include <Vorlix/QDVolume.h>

#include <mutex>
#include <utility>

/// The object fields are read and replaced under one lock, held for the copy of a value only. A new value is made
/// before the lock is taken and the old one ends after it is given back.
struct QDVolume::Fields {
  /// A shared value that may be grown, or a copy's own that may not.
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

  // Under the lock:
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
