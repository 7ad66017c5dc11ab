// SPDX-License-Identifier: Apache-2.0
/// @file
/// The set of ports in force in this process.
///
/// The library reaches the operating system only through these objects. A host that wants to test against a machine
/// of its own making puts another set in place before it calls anything else; the set is not guarded against being
/// replaced while it is in use.
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

/// One object a port. None is null in a set that is in force.
struct Platform {
  std::shared_ptr<DeviceFile> deviceFile;
  std::shared_ptr<DiskArbitration> diskArbitration;
  std::shared_ptr<RunLoops> runLoops;
  std::shared_ptr<IORegistry> ioRegistry;
  std::shared_ptr<FileCopy> fileCopy;
  std::shared_ptr<HostBundle> hostBundle;
  std::shared_ptr<ChildProcess> childProcess;
  std::shared_ptr<CodeSigning> codeSigning;
  std::shared_ptr<SystemLog> systemLog;
  std::shared_ptr<MountedVolumes> mountedVolumes;
  std::shared_ptr<UserIdentity> userIdentity;
  std::shared_ptr<Shell> shell;
  std::shared_ptr<VolumeMirrors> volumeMirrors;
  std::shared_ptr<DeviceStreams> deviceStreams;
  std::shared_ptr<Files> files;
  std::shared_ptr<FilesInPlace> filesInPlace;
  std::shared_ptr<Pauses> pauses;
  std::shared_ptr<SystemPaths> systemPaths;
  std::shared_ptr<UserLocale> userLocale;
  std::shared_ptr<Unpacking> unpacking;
  std::shared_ptr<BlockCoding> blockCoding;
};

/// The ports of the operating system that this library was built for.
VORLIX_EXPORT Platform nativePlatform();

/// The set in force, the native one unless setPlatform() put another in its place.
VORLIX_EXPORT const Platform& platform();

/// Puts a set in force. A port that is null in it is the native one. @return the set that was in force before.
VORLIX_EXPORT Platform setPlatform(Platform replacement);

}  // namespace vorlix
