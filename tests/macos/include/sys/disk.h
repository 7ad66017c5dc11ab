// SPDX-License-Identifier: Apache-2.0
//
// Requests to a disk's node.
#pragma once

#include <stdint.h>
#include <sys/ioctl.h>

typedef struct {
  uint64_t offset;
  uint64_t length;
  uint32_t options;
  uint8_t reserved0160[4];
} dk_synchronize_t;

#define DKIOCSYNCHRONIZE _IOW('d', 22, dk_synchronize_t)
#define DKIOCGETBLOCKSIZE _IOR('d', 24, uint32_t)
#define DKIOCGETBLOCKCOUNT _IOR('d', 25, uint64_t)
