// SPDX-License-Identifier: Apache-2.0
//
// Files of a FAT volume beside files of the system: copied, compared.
#pragma once

#include <string>

#include "Dissenters.h"
#include "FatVolume.h"

namespace vorlix {

/// A volume with the bytes it was read from.
struct OpenVolume {
  int descriptor = -1;
  Extent window;
  FatVolume volume;

  Refusal read(int from, Extent where) {
    descriptor = from;
    window = where;
    return volume.read(from, where);
  }
};

/// Copies everything into an empty folder of the system, times of files included, brings it to the medium and compares
/// it. Files come out with mode 0600, folders with 0700.
Refusal copyVolumeTo(const OpenVolume& from, const std::string& folder);

/// Compares the content of a file with that of a file of the system, sizes included.
Refusal compareFile(const OpenVolume& from, const FatEntry& entry, const std::string& file, bool& isEqual);

}  // namespace vorlix
