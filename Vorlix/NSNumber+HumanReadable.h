// SPDX-License-Identifier: Apache-2.0
/// @file
/// Formats byte counts for display.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Number.h>

#include <string>

/// Returns a byte count with two decimals in the largest decimal unit in which it is at least 1: "1.50 GB",
/// "999.00 Bytes".
///
/// The units are Bytes and powers of 1000: KB, MB, GB and TB. Zero returns an empty string. A negative number, a NaN,
/// and a number that is at least 2^63 in every unit (about 9.2e30) are shown in Bytes.
///
/// The decimal separator is the user's: on macOS from the system preferences, elsewhere from LC_ALL, LC_NUMERIC or
/// LANG. The locale that the host has set for the process has no effect.
///
/// Keyword form: `-[NSNumber stringWithHumanReadableInt]`. Any thread may call it.
VORLIX_EXPORT std::string stringWithHumanReadableInt(const vorlix::Number& number);
