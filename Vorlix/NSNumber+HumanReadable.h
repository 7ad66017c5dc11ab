// SPDX-License-Identifier: Apache-2.0
/// @file
/// Byte counts for people's eyes.
#pragma once

#include <Vorlix/foundation/Export.h>
#include <Vorlix/foundation/Number.h>

#include <string>

/// A byte count with two decimals in the largest decimal unit of which there is at least one: "1.50 GB", "999.00
/// Bytes". Units are powers of 1000 up to TB. Zero gives the empty text; a negative number, one that is none, and one
/// that is at least 2^63 of every unit, about 9.2e30, come in Bytes. The decimal separator is the user's (on macOS that
/// of the preferences, elsewhere of LC_ALL, LC_NUMERIC or LANG), whatever locale the host has set for the process.
///
/// Keyword form: `-[NSNumber stringWithHumanReadableInt]`. Any thread may call it.
VORLIX_EXPORT std::string stringWithHumanReadableInt(const vorlix::Number& number);
