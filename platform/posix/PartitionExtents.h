// SPDX-License-Identifier: Apache-2.0
//
// The places of slices without their own device node: those of disk-image files, and of block devices whose partitions
// the kernel does not read.
//
// This is deliberately more lenient than the systems' own probers. It ignores the checksums of a GPT in its place,
// because a disk that is being repaired may have wrong ones. It limits what a damaged table claims to the size of the
// disk. If the first header of a GPT is missing, it uses the second one at the end of the disk, if that is undamaged.
// The slots of an MBR that only protects a GPT are never slices.
#pragma once

#include <cstdint>
#include <optional>

#include "Extent.h"

namespace vorlix {

/// Returns the block size of a disk-image file, 512 or 4096, depending on the place of its GPT header; 512 if it has
/// none.
uint32_t imageBlockSize(int descriptor);

/// Returns the LBA of the GPT header to use: 1, or that of the disk's last block. Absent if there is no GPT.
std::optional<uint64_t> gptHeaderLBA(int descriptor, uint64_t diskSize, uint32_t blockSize);

/// Returns the bytes of slice `number`, from 1, of a disk of `diskSize` bytes: of its GPT, or else of its MBR (1 to 4).
/// The slice ends at the end of the disk. Absent if there is no such slice or if it starts past the end.
std::optional<Extent> partitionExtent(int descriptor, uint64_t diskSize, uint32_t blockSize, uint32_t number);

}  // namespace vorlix
