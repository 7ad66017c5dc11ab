// SPDX-License-Identifier: Apache-2.0
//
// Ownership of property list nodes, and the checks before the parser.
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

/// Owns the root of a tree of nodes and frees the whole tree.
using PropertyListOwner = std::unique_ptr<void, PropertyListFreer>;

/// Limits to the cost of parsing a property list.
struct PropertyListLimits {
  size_t values = 0;   ///< number of values in the tree; each counts once per reference
  size_t bytes = 0;    ///< bytes of text and data in the tree; they count once per reference
  unsigned depth = 0;  ///< levels of the tree
};

/// The limits for archives. A record's dictionary is on the fourth level; attributes add one level for their arrays.
inline constexpr PropertyListLimits kArchiveLimits = {KeyedUnarchiver::kMostValues, KeyedUnarchiver::kLargestArchive,
                                                      16};

/// Returns whether the bytes begin like a binary property list.
bool isBinaryPropertyList(std::span<const uint8_t> file);

/// Returns whether the bytes are a binary property list whose tree is within the limits.
///
/// A value may have several references in the file, but the parser copies it for each one: a few hundred bytes could
/// expand to more than a machine can hold. Therefore this function first measures everything below the root. It also
/// checks that every offset is inside the file and that no value contains itself.
bool isBoundedPropertyList(std::span<const uint8_t> file, const PropertyListLimits& limits);

/// Parses a property list, binary or in XML.
///
/// An integer that does not fit a signed 64-bit number becomes a date in the tree, because after parsing it could not
/// be distinguished from a negative one.
/// @return the tree; null if the bytes are not a property list within the limits, or if the parser refuses them.
PropertyListOwner parsePropertyList(std::span<const uint8_t> file, const PropertyListLimits& limits);

}  // namespace vorlix
