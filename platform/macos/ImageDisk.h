// SPDX-License-Identifier: Apache-2.0
//
// Disk-image files as disks. Disk Arbitration does not know them before they are attached, and they are not attached
// here: they are described and found, but not mounted.
#pragma once

#include <Vorlix/platform/DiskArbitration.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "CFOwned.h"
#include "DeviceNames.h"

namespace vorlix {

/// Answers that are given on the run loops that a session is scheduled on, like those of Disk Arbitration.
class LocalAnswers {
 public:
  LocalAnswers();
  ~LocalAnswers();
  LocalAnswers(const LocalAnswers&) = delete;
  LocalAnswers& operator=(const LocalAnswers&) = delete;

  void add(DiskCompletion completion, std::optional<Dissenter> answer);
  void schedule(CFRunLoopRef loop, CFStringRef mode);
  void unschedule(CFRunLoopRef loop, CFStringRef mode);

 private:
  static void perform(void* self);

  CFOwned<CFRunLoopSourceRef> source_;
  std::deque<std::pair<DiskCompletion, std::optional<Dissenter>>> waiting_;
};

/// The image file, or slice of one, at `location`; null where the image does not have that slice.
std::shared_ptr<Disk> imageDisk(const DeviceLocation& location, const std::shared_ptr<LocalAnswers>& answers);

}  // namespace vorlix
