// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/Platform.h>

#include "CodeSigning.h"
#include "DeviceFile.h"
#include "DiskArbitration.h"
#include "FileCopy.h"
#include "HostBundle.h"
#include "IORegistry.h"
#include "MountedVolumes.h"
#include "RunLoop.h"
#include "SystemLog.h"
#include "VolumeMirrors.h"
#include "platform/posix/ChildProcess.h"
#include "platform/posix/Shell.h"
#include "platform/posix/UserIdentity.h"

namespace vorlix {

Platform nativePlatform() {
  Platform native;
  native.deviceFile = std::make_shared<LinuxDeviceFile>();
  native.diskArbitration = std::make_shared<LinuxDiskArbitration>();
  native.runLoops = std::make_shared<LinuxRunLoops>();
  native.ioRegistry = std::make_shared<LinuxIORegistry>();
  native.fileCopy = std::make_shared<LinuxFileCopy>();
  native.hostBundle = std::make_shared<LinuxHostBundle>();
  native.childProcess = std::make_shared<PosixChildProcess>();
  native.codeSigning = std::make_shared<LinuxCodeSigning>();
  native.systemLog = std::make_shared<LinuxSystemLog>();
  native.mountedVolumes = std::make_shared<LinuxMountedVolumes>();
  native.userIdentity = std::make_shared<PosixUserIdentity>();
  native.shell = std::make_shared<PosixShell>();
  native.volumeMirrors = std::make_shared<LinuxVolumeMirrors>();
  return native;
}

}  // namespace vorlix
