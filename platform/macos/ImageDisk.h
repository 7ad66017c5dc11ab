// SPDX-License-Identifier: Apache-2.0
//
// Disk-image files as disks. Disk Arbitration does not know an image file, and this adapter does not attach it. So
// image files are found and described, but not mounted.
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

/// Gives answers on the run loops that a session is scheduled on, as Disk Arbitration does.
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

/// Returns the disk for an image file or a slice of one. Null if the image does not have that slice.
std::shared_ptr<Disk> imageDisk(const DeviceLocation& location, const std::shared_ptr<LocalAnswers>& answers);

}  // namespace vorlix
