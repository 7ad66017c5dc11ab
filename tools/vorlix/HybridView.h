// SPDX-License-Identifier: Apache-2.0
//
// Shows what a `hybrid` run would do, or did.
#pragma once

#include <string>
#include <vector>

#include "HybridPlan.h"

namespace vorlix::tool {

/// What a reader would not expect of a run, a sentence each.
std::vector<std::string> hybridNotes(const HybridPlan& plan);

/// Prints the notes on standard output, a line each.
void printHybridNotes(const HybridPlan& plan);

/// Prints a dry run: the slots and fields that would change, and with `bytes` also the rows of bytes.
void printHybridPlan(const HybridPlan& plan, bool bytes);

/// Prints the same as JSON.
void printHybridPlanJson(const HybridPlan& plan);

}  // namespace vorlix::tool
