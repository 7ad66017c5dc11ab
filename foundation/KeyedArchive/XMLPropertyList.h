// SPDX-License-Identifier: Apache-2.0
//
// The guard before the parser of property lists in XML.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "PropertyList.h"

namespace vorlix {

/// A property list in XML as the parser is to have it. Absent if the bytes are none, or one beyond the limits: three
/// times as many elements as values, since a reference is a dictionary of its own here, and text and data within the
/// file's own size. Only what writers of property lists make is taken: elements known by name and closed in order, one
/// value in all, no CDATA and no declarations of a document type's own, so that the parser and this survey see the same
/// tree.
///
/// A whole number that does not fit a signed 64-bit one is replaced by a date, which nothing in an archive is.
std::optional<std::string> boundedXMLPropertyList(std::string_view file, const PropertyListLimits& limits);

}  // namespace vorlix
