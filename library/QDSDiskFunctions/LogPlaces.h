// SPDX-License-Identifier: Apache-2.0
//
// Numbers in the log that show where a message comes from. They are fixed, because programs that read the log use them.
#pragma once

namespace vorlix {

enum LogPlace : int {
  kPlaceNoPartitionNumber = 170,
  kPlaceUnknownBlockSize = 215,
  kPlaceComparing = 228,
  kPlaceReadingGPT = 327,
  kPlaceGuard = 419,
  kPlaceTableGap = 468,
  kPlaceTableTitle = 469,
  kPlaceTableColumns = 470,
  kPlaceTableRule = 471,
  kPlaceBadSignature = 569,
  kPlaceNotProtective = 590,
  kPlaceDeclined = 624,
  kPlaceDeclinedAgain = 625,
  kPlaceOpenFailed = 632,
  kPlaceUpdatingUUID = 652,
  kPlaceReadingMBR = 753,
};

}  // namespace vorlix
