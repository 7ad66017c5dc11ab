// SPDX-License-Identifier: Apache-2.0
/// @file
/// The ports that this process uses.
///
/// The library uses the operating system only through these objects. A host can replace them, for tests against a
/// simulated machine, before it calls anything else. Replacing them while they are in use is not thread-safe.
#pragma once

#include <Vorlix/foundation/Export.h>

#include <memory>

namespace vorlix {

class BlockCoding;
class ChildProcess;
class CodeSigning;
class DeviceFile;
class DeviceStreams;
class DiskArbitration;
class FileCopy;
class Files;
class FilesInPlace;
class HostBundle;
class IORegistry;
class MountedVolumes;
class Pauses;
class RunLoops;
class Shell;
class SystemLog;
class SystemPaths;
class Unpacking;
class UserIdentity;
class UserLocale;
class VolumeMirrors;
class WimApplying;

/// One object for each port. In the set in use none is null.
struct Platform {
  std::shared_ptr<DeviceFile> deviceFile;            ///< devices, slices and image files as bytes
  std::shared_ptr<DiskArbitration> diskArbitration;  ///< descriptions, mounting and unmounting
  std::shared_ptr<RunLoops> runLoops;                ///< the calling thread's run loop
  std::shared_ptr<IORegistry> ioRegistry;            ///< the tree of devices
  std::shared_ptr<FileCopy> fileCopy;                ///< copies of files and folders
  std::shared_ptr<HostBundle> hostBundle;            ///< the resources that a host ships
  std::shared_ptr<ChildProcess> childProcess;        ///< programs to run
  std::shared_ptr<CodeSigning> codeSigning;          ///< the check of callers
  std::shared_ptr<SystemLog> systemLog;              ///< the log of the system
  std::shared_ptr<MountedVolumes> mountedVolumes;    ///< the list of mounted volumes
  std::shared_ptr<UserIdentity> userIdentity;        ///< the user of the process
  std::shared_ptr<Shell> shell;                      ///< commands by the shell
  std::shared_ptr<VolumeMirrors> volumeMirrors;      ///< FAT volumes that no kernel mounts
  std::shared_ptr<DeviceStreams> deviceStreams;      ///< devices as streams of C
  std::shared_ptr<Files> files;                      ///< looking at files and folders
  std::shared_ptr<FilesInPlace> filesInPlace;        ///< syncing and renaming
  std::shared_ptr<Pauses> pauses;                    ///< pauses of a thread
  std::shared_ptr<SystemPaths> systemPaths;          ///< where the log and the status tool are
  std::shared_ptr<UserLocale> userLocale;            ///< the decimal separator
  std::shared_ptr<Unpacking> unpacking;              ///< packed files
  std::shared_ptr<BlockCoding> blockCoding;          ///< packing and hashing of blocks
  std::shared_ptr<WimApplying> wimApplying;          ///< volumes made of WIMs
};

/// Returns the ports of the operating system that this library was built for.
VORLIX_EXPORT Platform nativePlatform();

/// Returns the set in use: the native one, unless setPlatform() has replaced it.
VORLIX_EXPORT const Platform& platform();

/// Replaces the set in use. A port that is null is replaced by the native one. @return the set used before.
VORLIX_EXPORT Platform setPlatform(Platform replacement);

}  // namespace vorlix
