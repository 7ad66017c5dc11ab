// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdint.h>

#define CC_SHA256_DIGEST_LENGTH 32

typedef uint32_t CC_LONG;

extern "C" unsigned char* CC_SHA256(const void* data, CC_LONG size, unsigned char* digest);
