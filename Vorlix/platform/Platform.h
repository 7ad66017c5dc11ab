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

class ChildProcess;
class CodeSigning;
class DeviceFile;
class DiskArbitration;
class FileCopy;
class HostBundle;
class IORegistry;
class MountedVolumes;
class RunLoops;
class Shell;
class SystemLog;
class UserIdentity;
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
};

/// The ports of the operating system that this library was built for.
VORLIX_EXPORT Platform nativePlatform();

/// The set in force, the native one unless setPlatform() put another in its place.
VORLIX_EXPORT const Platform& platform();

/// Puts a set in force. @return the set that was in force before.
VORLIX_EXPORT Platform setPlatform(Platform replacement);

}  // namespace vorlix
