// SPDX-License-Identifier: Apache-2.0
/// @file
/// Checks both copies of a disk's GPT by the rules of the UEFI Specification 2.10, section 5.3. The check only reports;
/// its callers decide. The flat functions use a table without this check, the command line checks it first.
#pragma once

#include <Vorlix/PartitionRecords.h>
#include <Vorlix/foundation/Export.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace vorlix {

/// Reads bytes of a disk, starting at an offset.
/// @return how many bytes were read; fewer than requested only at the end of the disk.
using DiskReader = std::function<size_t(uint64_t offset, std::span<uint8_t> bytes)>;

/// One problem of a GPT.
struct GPTFinding {
  std::string code;  ///< a fixed word for programs, such as "overlap"
  std::string text;  ///< a description for users
};

/// The result of checkGPT(). Its findings have these codes, listed here in the order of the checks:
///
///   gpt-missing            sector 0 protects a GPT, but neither copy exists
///   primary-missing        the header at LBA 1 is missing; the table of the disk's last block is used
///   header-size            the header's size is less than 92 bytes or more than a block
///   header-checksum        the header's checksum is wrong
///   header-place           the header contains another LBA as its own
///   disk-truncated         the table is for a larger disk
///   usable-range           the usable LBAs end before they begin, or contain a copy of the table
///   entry-size             entries have another size than 128 bytes
///   entries-beyond-disk    the entries are past the end of the disk
///   entry-count            more entries than fit before the first usable LBA, or than are read (65536)
///   entries-checksum       the checksum of the entries is wrong
///   backup-missing         there is no second header at the LBA in the first one
///   backup-damaged         the second header has a wrong size, checksum or LBA
///   backup-differs         the two headers have different content
///   backup-entries         the second copy of the entries is past the end of the disk, is larger than is read (65536
///                          entries), or has a wrong checksum
///   entry-reversed         an entry ends before it begins
///   entry-beyond-disk      an entry ends past the end of the disk
///   entry-outside          an entry is outside the usable LBAs
///   overlap                two entries share LBAs
///   more                   there are more findings about entries than the report lists
struct GPTReport {
  /// LBA of the header whose table is used: 1, or the disk's last block. Absent if the disk has no GPT.
  std::optional<uint64_t> headerLBA;
  GPTHeader header = {};          ///< that header; all zero without one
  std::vector<GPTEntry> entries;  ///< the entries that the disk holds, at least four records (zero ones if necessary)
  std::vector<GPTFinding> findings;  ///< what is wrong, in the order in which it was found; empty for a sound table
};

/// Reads and checks a disk's GPT. At most kMaximumEntries entries of each copy are read and at most 16 findings about
/// entries are listed, so time and memory are limited whatever the table contains.
/// @param blockSize  block size of the disk in bytes, at least 512.
VORLIX_EXPORT GPTReport checkGPT(const DiskReader& read, uint64_t diskSize, uint64_t blockSize);

/// Returns pairs of numbers (from 1) of used entries that share LBAs. In the order of their first LBAs, each entry is
/// paired with the earlier one that reaches farthest, if they overlap. Entries that end before they begin are ignored.
VORLIX_EXPORT std::vector<std::pair<uint32_t, uint32_t>> overlappingEntries(std::span<const GPTEntry> entries);

}  // namespace vorlix
