// SPDX-License-Identifier: Apache-2.0
//
// Decides from bytes whether a GUID Partition Table counts. The library and the adapters use the same rules, so that a
// slice is the same place for all of them. Layout: UEFI Specification 2.10, sections 5.2.3 and 5.3.2.
#pragma once

#include <cstdint>
#include <span>

namespace vorlix {

/// Returns the CRC-32 of a GPT: polynomial 0x04C11DB7, reflected, start and end inverted (UEFI Specification 2.10,
/// section 4.2.1, which refers to IEEE 802.3). To process a long range in pieces, pass the result for one piece as
/// `before` of the next.
uint32_t crc32(std::span<const uint8_t> bytes, uint32_t before = 0);

/// Returns whether a block begins with the signature of a GPT header.
bool hasGPTSignature(std::span<const uint8_t> block);

/// Returns whether the GPT header in a block has a possible size and the right checksum. A header that is longer than
/// `block` is wrong.
bool hasRightChecksum(std::span<const uint8_t> block);

/// Returns whether a block is an undamaged GPT header for LBA `lba`.
bool isSoundGPTHeader(std::span<const uint8_t> block, uint64_t lba);

/// Returns whether sector 0 has an MBR slot of type EE, which says that the disk has a GPT.
bool isProtected(std::span<const uint8_t> sector0);

/// Returns whether the second copy of a GPT counts if the first copy is missing: sector 0 protects the GPT or has no
/// MBR. On a disk with another kind of MBR, the second copy is left over from earlier use.
bool leavesDiskToGPT(std::span<const uint8_t> sector0);

}  // namespace vorlix
