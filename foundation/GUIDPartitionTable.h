// SPDX-License-Identifier: Apache-2.0
//
// What decides, from bytes alone, whether a GUID Partition Table counts: both the library and the systems' adapters go
// by it, so that a slice is the same place for all. Layout: UEFI Specification 2.10, sections 5.2.3 and 5.3.2.
#pragma once

#include <cstdint>
#include <span>

namespace vorlix {

/// The CRC-32 of a GPT: polynomial 0x04C11DB7, reflected, start and end inverted (UEFI Specification 2.10, section
/// 4.2.1, which refers to the one of IEEE 802.3). A long run is taken in pieces: what one piece gives is the `before`
/// of the next.
uint32_t crc32(std::span<const uint8_t> bytes, uint32_t before = 0);

/// Whether a block begins with the signature of a GPT header.
bool hasGPTSignature(std::span<const uint8_t> block);

/// Whether a block's GPT header has a size that fits and the checksum that it says. Bytes behind a short `block` count
/// as missing, so that such a header is wrong.
bool hasRightChecksum(std::span<const uint8_t> block);

/// Whether a block is a GPT header that stands at LBA `lba` and is undamaged.
bool isSoundGPTHeader(std::span<const uint8_t> block, uint64_t lba);

/// Whether sector 0 has an MBR slot of type EE, which says that the GPT tells what is on the disk.
bool isProtected(std::span<const uint8_t> sector0);

/// Whether a GPT's second copy, found while the first is gone, still tells what is on the disk: sector 0 protects it,
/// or holds no MBR. On a disk that has an MBR of another kind it is left over from an earlier use.
bool leavesDiskToGPT(std::span<const uint8_t> sector0);

}  // namespace vorlix
