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
  std::shared_ptr<WimApplying> wimApplying;
};

/// Returns the ports of the operating system that this library was built for.
VORLIX_EXPORT Platform nativePlatform();

/// Returns the set in use: the native one, unless setPlatform() has replaced it.
VORLIX_EXPORT const Platform& platform();

/// Replaces the set in use. A port that is null is replaced by the native one. @return the set used before.
VORLIX_EXPORT Platform setPlatform(Platform replacement);

}  // namespace vorlix
