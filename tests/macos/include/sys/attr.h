// SPDX-License-Identifier: Apache-2.0
//
// Attributes of volumes.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#define ATTR_BIT_MAP_COUNT 5
#define ATTR_VOL_INFO 0x80000000
#define ATTR_VOL_NAME 0x00002000

struct attrlist {
  u_short bitmapcount;
  uint16_t reserved;
  uint32_t commonattr;
  uint32_t volattr;
  uint32_t dirattr;
  uint32_t fileattr;
  uint32_t forkattr;
};

typedef struct attrreference {
  int32_t attr_dataoffset;
  uint32_t attr_length;
} attrreference_t;

// The system declares it in <unistd.h>.
extern "C" int getattrlist(const char* path, void* wanted, void* answer, size_t size, unsigned int options);
