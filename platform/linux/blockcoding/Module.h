// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/posix/BlockCodingTable.h"

namespace vorlix {

/// What blockcoding.so exports.
using BlockCodingEntry = const BlockCodingTable*();

inline constexpr const char* kBlockCodingEntry = "vorlix_block_coding";

}  // namespace vorlix
