// SPDX-License-Identifier: Apache-2.0
#include "StoreText.h"

#include <Vorlix/foundation/LittleEndian.h>

#include "Text.h"

namespace vorlix::tool {

std::string partitionText(const std::vector<StorePartition>& partitions) {
  std::string text;
  for (const StorePartition& partition : partitions) {
    if (!text.empty()) text += ", ";
    if (partition.isMBR) {
      text += "byte " + std::to_string(littleEndian(partition.partition, 0, 8)) + " of disk " +
              hexDigits(littleEndian(partition.disk, 0, 4), 8);
    } else {
      text += guidText(partition.partition.data());
    }
  }
  return text;
}

}  // namespace vorlix::tool
