// SPDX-License-Identifier: Apache-2.0
//
// Ownership of property list nodes, and the guard before the parser.
#pragma once

#include <Vorlix/foundation/KeyedArchive.h>
#include <plist/plist.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace vorlix {

struct PropertyListFreer {
  void operator()(void* node) const { plist_free(node); }
};

/// The root of a tree of nodes, freed with all below it.
using PropertyListOwner = std::unique_ptr<void, PropertyListFreer>;

/// What parsing a property list may cost.
struct PropertyListLimits {
  size_t values = 0;  ///< of the tree, each counted as often as it is referred to
  size_t bytes = 0;   ///< of text and data in the tree, likewise
  unsigned depth = 0;
};

/// What is taken of an archive. A record's dictionary is the fourth value down; attributes add one for their arrays.
inline constexpr PropertyListLimits kArchiveLimits = {KeyedUnarchiver::kMostValues, KeyedUnarchiver::kLargestArchive,
                                                      16};

/// Whether the bytes begin as a binary property list does.
bool isBinaryPropertyList(std::span<const uint8_t> file);

/// Whether the bytes are a binary property list whose tree keeps to the limits. Values may be referred to several times
/// in the file, but the parser copies them each time: a few hundred bytes could unfold to more than a machine holds. So
/// everything that the root leads to is measured here first. Also checked: every place lies in the file, and nothing
/// leads back into itself.
bool isBoundedPropertyList(std::span<const uint8_t> file, const PropertyListLimits& limits);

/// The tree of a property list, binary or in XML, or null if the bytes are none that keeps to the limits or the parser
/// refuses them. A whole number that does not fit a signed 64-bit one, which could not be told from a negative one once
/// it is parsed, is a date in the tree.
PropertyListOwner parsePropertyList(std::span<const uint8_t> file, const PropertyListLimits& limits);

}  // namespace vorlix
