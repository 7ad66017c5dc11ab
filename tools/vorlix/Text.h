// SPDX-License-Identifier: Apache-2.0
//
// Formats values for people to read.
#pragma once

#include <Vorlix/QDSDiskFunctions.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Terminal.h"

namespace vorlix::tool {

/// "536.87 MB (536870912 bytes)".
std::string sizeText(uint64_t bytes);

/// "512.00 MB", decimal units.
std::string shortSizeText(uint64_t bytes);

/// "146.5M": as lsblk shows sizes, in powers of 1024 with at most one decimal.
std::string binarySizeText(uint64_t bytes);

/// Returns two upper-case hexadecimal digits.
std::string hexByte(uint8_t byte);

/// Returns at least `digits` upper-case hexadecimal digits.
std::string hexDigits(uint64_t value, int digits);

/// Returns the text of a GUID from its 16 bytes on disk.
std::string guidText(const uint8_t* guid);

/// Returns the name of a GPT partition type; "unknown" for an uncommon one.
std::string gptTypeName(const std::string& guid);

/// Returns the name of an MBR partition type; "unknown" for an uncommon one.
std::string mbrTypeName(uint8_t type);

/// Returns the name of a GPT entry as UTF-8. Invalid UTF-16 becomes U+FFFD.
std::string partitionName(const GPTEntry& entry);

/// Returns the text with control characters replaced by "?", because text from a hostile disk could control the
/// terminal.
std::string printable(const std::string& text);

/// Does the same, but keeps line feeds and tabs.
std::string printableLines(const std::string& text);

/// Formats rows as a table for standard output. Each column is as wide as its widest cell. On a terminal with fewer
/// columns, cells that are aligned to the left continue on further lines; nothing is left out. `alignment` has one
/// character per column: 'r' for right, 'l' for left.
/// @param colors  of each row's last cell
std::string tableText(const std::vector<std::vector<std::string>>& rows, const std::string& alignment,
                      const std::vector<std::optional<Color>>& colors = {});

/// Returns text that starts at column `indent` of a line. On a terminal, it continues there on further lines.
std::string hangingText(const std::string& text, size_t indent);

}  // namespace vorlix::tool
