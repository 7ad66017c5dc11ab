// SPDX-License-Identifier: Apache-2.0
//
// Values as people read them.
#pragma once

#include <Vorlix/QDSDiskFunctions.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vorlix::tool {

/// "536.87 MB (536870912 bytes)".
std::string sizeText(uint64_t bytes);

/// "512.00 MB", decimal units.
std::string shortSizeText(uint64_t bytes);

/// Two upper-case hexadecimal digits.
std::string hexByte(uint8_t byte);

/// A fixed number of upper-case hexadecimal digits.
std::string hexDigits(uint64_t value, int digits);

/// GUID text of 16 on-disk bytes.
std::string guidText(const uint8_t* guid);

/// Name of a GPT partition type, "unknown" if it is not a common one.
std::string gptTypeName(const std::string& guid);

/// Name of an MBR partition type, "unknown" if it is not a common one.
std::string mbrTypeName(uint8_t type);

/// The name of a GPT entry as UTF-8. Code units that form no character become U+FFFD.
std::string partitionName(const GPTEntry& entry);

/// A text for the terminal: control characters, which a hostile disk could hold, become "?".
std::string printable(const std::string& text);

/// The same for lines that are not from the disk as such: their ends and tabs stay.
std::string printableLines(const std::string& text);

/// Rows of text as a table. Columns are as wide as their widest cell; those named in `rightAligned` (one character a
/// column, 'r' or 'l') stand to the right.
std::string tableText(const std::vector<std::vector<std::string>>& rows, const std::string& alignment);

}  // namespace vorlix::tool
