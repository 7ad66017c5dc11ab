// SPDX-License-Identifier: Apache-2.0
//
// A disk with boot records to save and restore.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

#include "DiskFixture.h"

namespace vorlix::test {

inline constexpr size_t kVBRSize = 8108;
inline constexpr size_t kMBRSize = 446;

class BootRecordsTest : public DiskTest {
 protected:
  BootRecordsTest() : file(folder / "saved") {
    machine.addDisk("disk0", 1000 * 512, 512);
    machine.addSlice("disk0", 1, 40, 15);  // 7680 bytes: too short for a boot record
    machine.addSlice("disk0", 3, 200, 100);
    machine.setBytes("disk0", 0, diskBytes);
  }

  /// Expects that the whole disk is unchanged except for the given bytes.
  void expectDisk(size_t offset = 0, const ByteVector& changed = {}) const {
    ByteVector expected = diskBytes;
    std::copy(changed.begin(), changed.end(), expected.begin() + static_cast<std::ptrdiff_t>(offset));
    EXPECT_TRUE(machine.bytes("disk0", 0, diskBytes.size()) == expected);
  }

  /// Returns the journal's lines about opening and closing devices.
  Lines openAndClose() const { return journalOf({"open ", "close "}); }

  std::string exists() const { return file + " already exists\n"; }

  const ByteVector diskBytes = patternBytes(1000 * 512);
  const ByteVector vbr = slice(diskBytes, 200 * 512 + 84, kVBRSize);
  const std::string file;
};

}  // namespace vorlix::test
