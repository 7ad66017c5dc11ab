// SPDX-License-Identifier: Apache-2.0
/// @file
/// A simulated machine for tests: disks with bytes, locks of other processes, faults, and a journal of all calls.
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

/// Replaces the ports of this process as long as the object exists.
class ScopedPlatform {
 public:
  /// Puts `replacement` in force.
  explicit ScopedPlatform(Platform replacement) : before_(setPlatform(std::move(replacement))) {}
  ~ScopedPlatform() { setPlatform(std::move(before_)); }
  ScopedPlatform(const ScopedPlatform&) = delete;
  ScopedPlatform& operator=(const ScopedPlatform&) = delete;

 private:
  Platform before_;
};

/// The operations that can be made to fail, with their names in the journal.
enum class Operation { open, read, write, sync, close };

/// A volume on a simulated device.
struct SimulatedVolume {
  std::string kind;          ///< "msdos", "ntfs", "exfat", "hfs", "apfs"
  std::string name;          ///< label
  std::optional<UUID> uuid;  ///< volume identifier
  std::string mountPath;     ///< the mount point; addFile() and similar functions set what the library finds there
  bool mounted = false;      ///< whether it is mounted at the start
};

/// Registry calls that can be made to fail.
enum class RegistryCall { masterPort, createIterator, matchingServices, copyProperties, parent, path };

/// Identifies an entry of the simulated registry.
using RegistryEntryID = size_t;

/// What a simulated program does when it runs. It ends by itself when everything that it writes has been read.
struct SimulatedRun {
  /// Which of its streams a program writes to.
  enum class Stream { output, error };

  /// What is read as one chunk; not empty.
  struct Piece {
    Stream stream = Stream::output;  ///< where it is written
    std::string bytes;               ///< what is read
  };

  /// What the program writes. A run loop delivers it in this order, across both streams while both are being read.
  std::vector<Piece> pieces;
  int32_t status = 0;               ///< exit status
  bool staysOn = false;             ///< keeps its streams open afterwards and runs until it is terminated
  bool ignoresTermination = false;  ///< continues when it is terminated
};

/// Returns what a program does with these arguments.
using SimulatedProgram = std::function<SimulatedRun(const std::vector<std::string>& arguments)>;

struct SimulatedState;

/// Devices can be named with or without "/dev/". The journal uses names without it.
///
/// Journal lines: "open disk0 read", "open disk0 write exclusive", "read disk0 512+512" (offset+count), "write disk0
/// 0+512", "sync disk0", "close disk0", "describe disk0". The line of a call that fails ends with ": " and the reason,
/// as in "open disk0 write exclusive: EWOULDBLOCK".
///
/// Disk arbitration: "session open", "session close", "schedule kCFRunLoopDefaultMode", "unschedule
/// kCFRunLoopDefaultMode", "run kCFRunLoopDefaultMode 100" (milliseconds), "mount disk0s1", "mount disk0s1 nobrowse
/// rw", "unmount disk0s1". Registry: "registry port", "registry iterate IOService", "registry match BSD disk0s1",
/// "registry match class IOMedia". File copies: "copy <source> <destination>". Children: "launch /bin/sh -c ls" (path
/// and arguments), "terminate /bin/sh". Others: "check code 100 <requirement>", "system log Vorlix: <text>", "shell
/// <command>", "list mounted volumes". These lines are written whether or not the call is refused. Sessions that could
/// not be opened and all other calls leave no line.
///
/// If files, folders or links were added, the machine has these and no others, and copies stay within it. If none was
/// added, it uses the real files of the system, for tests with their own folders. The log file and the files that the
/// flat functions read and write at given paths are always real.
///
/// No time passes in the run loop: a run returns at once, whatever its limit is. A pause takes its time, unless
/// duringPauses() has replaced it. A request is carried out in the run of the loop that handles it, or else when its
/// session is closed. A run that carries out no request completes one read of a child's output, if something can be
/// read or the output has just ended. Since no time passes, reads after the end do not complete.
class SimulatedMachine {
 public:
  SimulatedMachine();
  ~SimulatedMachine();
  SimulatedMachine(const SimulatedMachine&) = delete;
  SimulatedMachine& operator=(const SimulatedMachine&) = delete;

  /// Returns the ports of this machine. They share its state and remain valid after it is destroyed.
  Platform platform() const;

  /// Adds a whole disk whose bytes are zero. Parts that are not written take no memory.
  void addDisk(const std::string& name, uint64_t size, uint32_t blockSize);

  /// Adds slice `number` of `disk` under the name `<disk>s<number>`: `count` blocks from block `first`.
  void addSlice(const std::string& disk, uint32_t number, uint64_t first, uint64_t count);

  /// Makes disk arbitration report no block size for the disk.
  void hideBlockSize(const std::string& disk);

  /// Makes disk arbitration unreachable: no session can be opened.
  void refuseSessions();

  /// @{
  /// Set what disk arbitration reports for a device: a volume on it, one key of its description set or removed, no
  /// description at all, no whole disk. A description has block size, size and names from the start, the keys of a
  /// volume after setVolume(), and its path while it is mounted.
  void setVolume(const std::string& device, SimulatedVolume volume);
  void setDescription(const std::string& device, const std::string& key, Value value);
  void removeDescription(const std::string& device, const std::string& key);
  void hideDescription(const std::string& device);
  void hideWholeDisk(const std::string& device);
  /// @}

  /// @{
  /// Refuse all further mounts or unmounts of a device with a dissenter. Otherwise a mount without a volume is refused
  /// as unsupported, a second mount as busy, and an unmount of a volume that is not mounted as not mounted.
  void refuseMount(const std::string& device, int32_t status, const std::string& text = "");
  void refuseUnmount(const std::string& device, int32_t status, const std::string& text = "");
  /// @}

  /// Delays each completion by `runs` runs of the loop that handle nothing.
  void delayCompletions(unsigned runs);

  /// Returns whether disk arbitration has a volume of that device mounted.
  bool isMounted(const std::string& device) const;

  /// Adds a registry entry. `parents` has, for each plane that the entry is in, the entry above it; an absent one makes
  /// it a root of that plane. The entry has exactly the given properties, including "BSD Name". Iterators return an
  /// entry before those below it, and these in the order in which they were added. Only entries in the service plane
  /// can be matched as services. A path consists of the names from the root to the entry.
  RegistryEntryID addRegistryEntry(const std::string& name, const std::string& className, Dictionary properties,
                                   std::map<std::string, std::optional<RegistryEntryID>> parents);

  /// Makes a registry call return `code` and no result; a call on an entry only for `entry`, if that is given. The code
  /// 0 is success without a result.
  void failRegistry(RegistryCall call, KernReturn code, std::optional<RegistryEntryID> entry = std::nullopt);

  /// Returns the number of registry entries that are held now.
  size_t heldRegistryEntries() const;

  /// Adds a resource of the host, at `path`. The host has no others.
  void addResource(const std::string& name, const std::string& type, const std::string& path,
                   const std::string& directory = "");

  /// Appends a volume to the list of mounted volumes. This does not change what disk arbitration reports (setVolume()):
  /// on a real machine, too, the two can differ for a moment.
  void addMountedVolume(MountedVolume volume);

  /// Sets the user of the process. It is 501 at first, an ordinary user.
  void setRealUserID(uint32_t user);

  /// Sets the status that the command interpreter returns for every command; 0 at first. It runs nothing.
  void setShellStatus(int status);

  /// @{
  /// Add a folder, a file, a symbolic link or a pipe, and the folders above it. An item at that path is replaced.
  /// Entries are listed in the order in which they were added. The working folder is the root.
  void addFolder(const std::string& path);
  void addFile(const std::string& path, const std::string& contents = "");
  void addLink(const std::string& path, const std::string& target);
  void addPipe(const std::string& path);
  /// @}

  /// Makes a folder, and the folders that are added below it later, ignore the case of names, like the volumes of some
  /// systems. Adds the folder if it does not exist.
  void ignoreCase(const std::string& folder);

  /// Removes an item and everything below it.
  void removeItem(const std::string& path);

  /// Returns whether there is an item at a path, even a link that leads nowhere.
  bool holdsItem(const std::string& path) const;

  /// Returns the contents of a file. Absent if there is no file at that path.
  std::optional<std::string> contentsOf(const std::string& path) const;

  /// @{
  /// Set the path of the log, a real file, and of the tool that reports System Integrity Protection. Both have the
  /// usual paths at first.
  void setLogFile(const std::string& path);
  void setStatusTool(const std::string& path);
  /// @}

  /// Sets the decimal separator; until then it is the user's.
  void setDecimalSeparator(const std::string& separator);

  /// Makes pauses call `action` with their length instead of sleeping. A test can do there what another process would
  /// do meanwhile.
  void duringPauses(std::function<void(std::chrono::milliseconds)> action);

  /// Makes copying `source` fail with `reason`.
  void failCopy(const std::string& source, const std::string& reason);

  /// @{
  /// Adds a program at a path. Launching another path fails with ENOENT. A program that is terminated has the number of
  /// SIGTERM as its status, and the rest of its output is lost.
  void addProgram(const std::string& path, SimulatedProgram program);
  void addProgram(const std::string& path, SimulatedRun run);
  /// @}

  /// Sets the result of checking the code of that process against any requirement. No other process is running.
  void setCodeCheck(int32_t process, CodeCheck outcome);

  /// @{
  /// Return and set bytes of a device, without a line in the journal. Reading past the end returns fewer bytes.
  /// @throws std::out_of_range if setBytes() would write past the end.
  std::vector<uint8_t> bytes(const std::string& device, uint64_t offset, size_t count) const;
  void setBytes(const std::string& device, uint64_t offset, const std::vector<uint8_t>& bytes);
  /// @}

  /// Makes an operation on a device fail with `error` after it has succeeded `successes` times.
  void fail(const std::string& device, Operation operation, int error, unsigned successes = 0);

  /// Makes each write to a device stop after `count` bytes, as on a full medium.
  void shortenWrites(const std::string& device, size_t count);

  /// Sets the lock that another process has on the whole disk.
  void lockElsewhere(const std::string& disk, DeviceLock lock);

  /// Returns all lines so far, in order.
  std::vector<std::string> journal() const;

  /// Returns the lines of the journal that begin with "write" or "sync".
  std::vector<std::string> writes() const;

  /// Forgets the lines so far.
  void clearJournal();

  /// Returns the number of devices that are open now.
  size_t openCount() const;

 private:
  std::shared_ptr<SimulatedState> state_;
};

}  // namespace vorlix
