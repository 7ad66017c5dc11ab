// SPDX-License-Identifier: Apache-2.0
//
// SHA-256 by the library that the system has for it: the functions of the same names in BlockCodingTable.h.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vorlix {

void* newBlockHash();
void freeBlockHash(void* hash);
void addToBlockHash(void* hash, const uint8_t* bytes, size_t count);
void finishBlockHash(void* hash, uint8_t* digest);

}  // namespace vorlix
