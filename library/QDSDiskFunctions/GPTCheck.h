// SPDX-License-Identifier: Apache-2.0
//
// What is wrong with a disk's GPT, by the rules of the UEFI Specification 2.10, section 5.3. Looks at both copies and
// decides nothing: the flat readers take a table as it stands, the command line asks here first.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "PartitionRecords.h"

namespace vorlix {

/// Reads bytes of a disk from an offset on. @return how many there are, fewer than asked for only at the disk's end.
using DiskReader = std::function<size_t(uint64_t offset, std::span<uint8_t> bytes)>;

struct GPTFinding {
  std::string code;  ///< a word that stays the same, for programs: "overlap"
  std::string text;  ///< for people
};

/// The codes, in the order in which they are looked for:
///
///   gpt-missing            sector 0 protects a GPT, and neither copy is there
///   primary-missing        the header at LBA 1 is gone; the table is that of the disk's last block
///   header-size            the header's size is less than 92 bytes or more than a block
///   header-checksum        the header's checksum is wrong
///   header-place           the header says that it stands at another LBA
///   disk-truncated         the table is for a larger disk
///   usable-range           the usable LBAs end before they begin, or hold a copy of the table
///   entry-size             entries have another size than 128 bytes
///   entry-count            more entries than there is room for before the first usable LBA, or than are read (65536)
///   entries-beyond-disk    the entries stand past the end of the disk
///   entries-checksum       the checksum of the entries is wrong
///   backup-missing         there is no second header where the first one says
///   backup-damaged         the second header has a wrong size, checksum or place
///   backup-differs         the copies say different things
///   backup-entries         the second copy of the entries is beyond the disk's end, or its checksum is wrong
///   entry-reversed         an entry ends before it begins
///   entry-outside          an entry is outside the usable LBAs
///   entry-beyond-disk      an entry ends past the end of the disk
///   overlap                two entries share LBAs
///   more                   there are more findings about entries than are told
struct GPTReport {
  /// LBA of the header whose table counts: 1, or the disk's last block. Absent without a GPT.
  std::optional<uint64_t> headerLBA;
  GPTHeader header = {};          ///< that header, where there is one
  std::vector<GPTEntry> entries;  ///< what the disk holds of its table, at least four records (zero ones if need be)
  std::vector<GPTFinding> findings;
};

/// Reads and checks a disk's GPT. At most kMaximumEntries entries of either copy are read, and their findings are cut
/// at 16, so that time and memory are bounded whatever the table claims. @param blockSize  at least 512.
GPTReport checkGPT(const DiskReader& read, uint64_t diskSize, uint64_t blockSize);

/// Numbers (from 1) of two used entries that share LBAs, for each entry with the next one that it meets by first LBA.
/// Entries that end before they begin share nothing.
std::vector<std::pair<uint32_t, uint32_t>> overlappingEntries(std::span<const GPTEntry> entries);

}  // namespace vorlix
