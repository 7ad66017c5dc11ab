// SPDX-License-Identifier: Apache-2.0
//
// Where slice N of a disk stands, for disks whose slices have no device node of their own: disk-image files, and block
// devices whose partitions the kernel was not told to look for.
//
// This is deliberately more lenient than a system's own prober: the checksums of a GPT in its place are not looked at,
// since a disk that is being repaired may have wrong ones, and what a damaged table claims is held to the size of the
// disk. A GPT whose first header is gone is read from its second one, at the disk's end, if that one is undamaged. The
// slots of an MBR that only protects a GPT are never taken for slices.
#pragma once

#include <cstdint>
#include <optional>

#include "Extent.h"

namespace vorlix {

/// Block size of a disk-image file: 512 or 4096, wherever its GPT header stands; 512 when it has none.
uint32_t imageBlockSize(int descriptor);

/// LBA of the GPT header that tells where the slices are: 1, or that of the disk's last block. Absent without a GPT.
std::optional<uint64_t> gptHeaderLBA(int descriptor, uint64_t diskSize, uint32_t blockSize);

/// Slice `number` (from 1) of a disk of `diskSize` bytes: of its GPT, else of its MBR (1 to 4). Cut at the end of the
/// disk; absent when there is no such slice or it starts past the end.
std::optional<Extent> partitionExtent(int descriptor, uint64_t diskSize, uint32_t blockSize, uint32_t number);

}  // namespace vorlix
