// SPDX-License-Identifier: Apache-2.0
//
// What the machine offers for a value: devices, slices of image files, partitions, volumes, backups. Looks without
// writing, without asking and without a word on standard error; what the user may not read is left out.
#pragma once

#include <cstdint>
#include <vector>

#include "Completion.h"

namespace vorlix::tool {

/// Paths that the shell offers beside the words, by its own rules.
enum class OfferedPaths : uint8_t { none, files, folders };

struct Offers {
  std::vector<Candidate> words;
  OfferedPaths paths = OfferedPaths::none;
};

Offers offersFor(const Wanted& wanted);

}  // namespace vorlix::tool
