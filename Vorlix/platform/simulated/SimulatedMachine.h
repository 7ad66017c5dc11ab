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

#include <Vorlix/foundation/Value.h>
#include <Vorlix/platform/CodeSigning.h>
#include <Vorlix/platform/DeviceFile.h>
#include <Vorlix/platform/IORegistry.h>
#include <Vorlix/platform/MountedVolumes.h>
#include <Vorlix/platform/Platform.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
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

/// A volume on a simulated device.
struct SimulatedVolume {
  std::string kind;          ///< "msdos", "ntfs", "exfat", "hfs", "apfs"
  std::string name;          ///< label
  std::optional<UUID> uuid;  ///< volume identifier
  std::string mountPath;     ///< where a mount puts it; what the library finds there is what addFile() and the like say
  bool mounted = false;
};

/// Registry calls that can be made to fail.
enum class RegistryCall { masterPort, createIterator, matchingServices, copyProperties, parent, path };

/// Names an entry of the simulated registry.
using RegistryEntryID = size_t;

/// What a simulated program does when it is run. It ends by itself when all that it writes has been read.
struct SimulatedRun {
  enum class Stream { output, error };

  /// Read as one chunk; not empty.
  struct Piece {
    Stream stream = Stream::output;
    std::string bytes;
  };

  /// What it writes. A run loop delivers it in this order, across both streams as long as both are being read.
  std::vector<Piece> pieces;
  int32_t status = 0;               ///< exit status
  bool staysOn = false;             ///< after that keeps its streams open and runs until it is asked to end
  bool ignoresTermination = false;  ///< goes on when it is asked to end
};

/// Gives what a program does by its arguments.
using SimulatedProgram = std::function<SimulatedRun(const std::vector<std::string>& arguments)>;

struct SimulatedState;

/// A device is named with or without "/dev/"; the journal and this class use the bare name.
///
/// Journal lines: "open disk0 read", "open disk0 write exclusive", "read disk0 512+512" (offset+count), "write disk0
/// 0+512", "sync disk0", "close disk0", "describe disk0"; a refused one ends in ": " and the reason, as in "open disk0
/// write exclusive: EWOULDBLOCK".
///
/// Disk arbitration: "session open", "session close", "schedule kCFRunLoopDefaultMode", "unschedule
/// kCFRunLoopDefaultMode", "run kCFRunLoopDefaultMode 100" (milliseconds), "mount disk0s1", "mount disk0s1 nobrowse
/// rw", "unmount disk0s1". Registry: "registry port", "registry iterate IOService", "registry match BSD disk0s1",
/// "registry match class IOMedia". File copies: "copy <source> <destination>". Children: "launch /bin/sh -c ls" (path
/// and arguments), "terminate /bin/sh". Others: "check code 100 <requirement>", "system log Vorlix: <text>", "shell
/// <command>", "list mounted volumes". These say what was asked, whether or not it was
/// refused; a session that could not be opened and the ports' other calls leave no line.
///
/// A machine that was given a file, a folder or a link holds those and no other; copies stay within it. One that was
/// given none looks at the files of the system that it runs on and copies those, for tests with folders of their own.
/// The log file, and what the flat functions read and write at paths that they are given, are always real files.
///
/// Time does not pass in the run loop: a run returns at once, whatever its limit is. A pause takes its time, unless
/// duringPauses() has replaced it. A request is carried out in the run of the loop that handles it, or, without one,
/// when its session is closed. A run of the loop that carries out no request completes one read of a child's output, if
/// there is something to read or the output has just ended; since no time passes, reads after the end do not complete.
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

  /// Disk arbitration's view of a device: a volume on it, one key of its description set or taken away, no description
  /// at all, no whole disk. Block size, size and names are described from the start, a volume's keys from setVolume()
  /// on, its path while it is mounted.
  void setVolume(const std::string& device, SimulatedVolume volume);
  void setDescription(const std::string& device, const std::string& key, Value value);
  void removeDescription(const std::string& device, const std::string& key);
  void hideDescription(const std::string& device);
  void hideWholeDisk(const std::string& device);

  /// Answers mounts or unmounts of a device with a dissenter, from then on. Without this, a device without a volume
  /// refuses as unsupported, a second mount as busy and an unmount of what is not mounted as such.
  void refuseMount(const std::string& device, int32_t status, const std::string& text = "");
  void refuseUnmount(const std::string& device, int32_t status, const std::string& text = "");

  /// Lets a completion arrive only in the run of the loop after `runs` runs that handled nothing.
  void delayCompletions(unsigned runs);

  bool isMounted(const std::string& device) const;

  /// Adds a registry entry. `parents` names, for each plane that the entry is in, the entry above it; a plane without
  /// an entry of that number has it as a root. An entry has the properties as given, "BSD Name" included. Iterators
  /// hand out an entry before those below it, and these in the order they were added; only entries of the service
  /// plane are services that can be matched. A path lists the names from the root's down.
  RegistryEntryID addRegistryEntry(const std::string& name, const std::string& className, Dictionary properties,
                                   std::map<std::string, std::optional<RegistryEntryID>> parents);

  /// Makes a registry call answer `code` and give nothing; a call on an entry only for `entry`, if that is given. A
  /// code of 0 is a success that gives nothing.
  void failRegistry(RegistryCall call, KernReturn code, std::optional<RegistryEntryID> entry = std::nullopt);

  /// Registry entries that are held now.
  size_t heldRegistryEntries() const;

  /// Lets the host ship a resource, which stands at `path`; it ships no other.
  void addResource(const std::string& name, const std::string& type, const std::string& path,
                   const std::string& directory = "");

  /// Puts a volume at the end of the list of mounted ones. Disk arbitration is told by setVolume() what is on a device;
  /// neither follows from the other, as in a real machine for a moment.
  void addMountedVolume(MountedVolume volume);

  /// Whom the process runs for; 501, an ordinary user, at first.
  void setRealUserID(uint32_t user);

  /// What the command interpreter answers, whatever it is given; 0 at first. It runs nothing.
  void setShellStatus(int status);

  /// Adds a folder, a file, a symbolic link or a pipe in place of what stands there, and the folders above it. Entries
  /// are listed in the order in which they were added. The working folder is the root.
  void addFolder(const std::string& path);
  void addFile(const std::string& path, const std::string& contents = "");
  void addLink(const std::string& path, const std::string& target);
  void addPipe(const std::string& path);

  /// Takes names in a folder, and in those that are added below it from then on, for the same in any case, as the
  /// volumes of some systems do. The folder is added if need be.
  void ignoreCase(const std::string& folder);

  /// Removes an item with all that is below it.
  void removeItem(const std::string& path);

  /// Returns whether something stands at a path, be it a link that leads nowhere; the contents of a file.
  bool holdsItem(const std::string& path) const;
  std::optional<std::string> contentsOf(const std::string& path) const;

  /// Where the library logs (a real file), and the tool that reports System Integrity Protection; the usual paths at
  /// first.
  void setLogFile(const std::string& path);
  void setStatusTool(const std::string& path);

  /// Sets the decimal separator; until then it is the user's.
  void setDecimalSeparator(const std::string& separator);

  /// Replaces pauses: they call `action` with their length and do not sleep. A test can do there what another process
  /// would do meanwhile.
  void duringPauses(std::function<void(std::chrono::milliseconds)> action);

  /// Lets a copy of `source` fail with `reason`.
  void failCopy(const std::string& source, const std::string& reason);

  /// Puts a program at a path. A path without one cannot be launched (ENOENT). A program that was asked to end has the
  /// number of SIGTERM as its status, and what it would have written later is lost.
  void addProgram(const std::string& path, SimulatedProgram program);
  void addProgram(const std::string& path, SimulatedRun run);

  /// What a check of that process's code comes to, whatever is required of it. Other processes do not run.
  void setCodeCheck(int32_t process, CodeCheck outcome);

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
  std::shared_ptr<SimulatedState> state_;
};

}  // namespace vorlix
