// SPDX-License-Identifier: Apache-2.0
//
// The checks before the parser of property lists in XML.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "PropertyList.h"

namespace vorlix {

/// Returns a property list in XML in the form that the parser may read. An integer that does not fit a signed 64-bit
/// number is replaced by a date, because no value in an archive is a date.
///
/// Only the form that writers of property lists produce is accepted: elements with known names that are closed in
/// order, one value in all, no CDATA, and no declarations in the document type. So the parser and this check see the
/// same tree.
///
/// The limits allow three elements per value, because a reference is a separate dictionary in XML. The size of the file
/// limits the bytes of text and data.
/// @return absent if the bytes are not such a property list or exceed the limits.
std::optional<std::string> boundedXMLPropertyList(std::string_view file, const PropertyListLimits& limits);

}  // namespace vorlix
