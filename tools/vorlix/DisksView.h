// SPDX-License-Identifier: Apache-2.0
//
// Surveyed disks as a table or as JSON.
#pragma once

#include <vector>

#include "DiskSurvey.h"
#include "Json.h"

namespace vorlix::tool {

/// Prints a table with a row for each disk and each partition, and below it what is damaged and which command tells
/// more.
void printDisks(const std::vector<SurveyedDisk>& disks);

Json disksJson(const std::vector<SurveyedDisk>& disks);

}  // namespace vorlix::tool
