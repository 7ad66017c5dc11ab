// SPDX-License-Identifier: Apache-2.0
/// @file
/// A machine of one's own making, for tests: disks with bytes, other processes' locks, faults, and a journal of what
/// was asked of it.
///
///     SimulatedMachine machine;
///     machine.addDisk("disk0", 1000 * 512, 512);
///     machine.addSlice("disk0", 3, 40, 100);
///     ScopedPlatform scope(machine.platform());
///     ... calls into the library ...
///     EXPECT_EQ(machine.journal(), ...);
#pragma once

#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/Platform.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vorlix {

/// Puts a set of ports in force for the object's life.
class ScopedPlatform {
 public:
  explicit ScopedPlatform(Platform replacement) : before_(setPlatform(std::move(replacement))) {}
  ~ScopedPlatform() { setPlatform(std::move(before_)); }
  ScopedPlatform(const ScopedPlatform&) = delete;
  ScopedPlatform& operator=(const ScopedPlatform&) = delete;

 private:
  Platform before_;
};

/// What can be made to fail, and what the journal calls it.
enum class Operation { open, read, write, sync, close };

/// A device is named with or without "/dev/"; the journal and this class use the bare name.
///
/// Journal lines: "open disk0 read", "open disk0 write exclusive", "read disk0 512+512" (offset+count), "write disk0
/// 0+512", "sync disk0", "close disk0", "describe disk0"; a refused one ends in ": " and the reason, as in "open disk0
/// write exclusive: EWOULDBLOCK".
class SimulatedMachine {
 public:
  SimulatedMachine();
  ~SimulatedMachine();
  SimulatedMachine(const SimulatedMachine&) = delete;
  SimulatedMachine& operator=(const SimulatedMachine&) = delete;

  /// The ports of this machine. They share its state and stay valid after it.
  Platform platform() const;

  /// Adds a whole disk, all bytes zero. Unwritten parts take no memory.
  void addDisk(const std::string& name, uint64_t size, uint32_t blockSize);

  /// Adds slice `number` of `disk` under the name `<disk>s<number>`: `count` blocks from block `first`.
  void addSlice(const std::string& disk, uint32_t number, uint64_t first, uint64_t count);

  /// Makes disk arbitration know the disk but not its block size.
  void hideBlockSize(const std::string& disk);

  /// Makes disk arbitration unreachable: no session can be opened.
  void refuseSessions();

  /// Bytes of a device, without a journal line. Reading past the end gives fewer; writing there is an error.
  std::vector<uint8_t> bytes(const std::string& device, uint64_t offset, size_t count) const;
  void setBytes(const std::string& device, uint64_t offset, const std::vector<uint8_t>& bytes);

  /// Fails an operation on a device with `error` after `successes` of its kind have gone through, from then on.
  void fail(const std::string& device, Operation operation, int error, unsigned successes = 0);

  /// Lets writes to a device stop after `count` bytes each, as a medium that is full does.
  void shortenWrites(const std::string& device, size_t count);

  /// Another process's lock on the whole disk.
  void lockElsewhere(const std::string& disk, DeviceLock lock);

  /// Everything asked so far, in order.
  std::vector<std::string> journal() const;

  /// The journal's lines about writing: "write" and "sync".
  std::vector<std::string> writes() const;

  void clearJournal();

  /// Devices that are open now.
  size_t openCount() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
  class SimulatedHandle;
  class SimulatedDeviceFile;
  class SimulatedDisk;
  class SimulatedSession;
  class SimulatedArbitration;
};

}  // namespace vorlix
