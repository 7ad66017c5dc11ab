// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/Platform.h>

#include "CodeSigning.h"
#include "DeviceFile.h"
#include "DeviceStreams.h"
#include "DiskArbitration.h"
#include "FileCopy.h"
#include "FilesInPlace.h"
#include "HostBundle.h"
#include "IORegistry.h"
#include "MountedVolumes.h"
#include "RunLoop.h"
#include "SystemLog.h"
#include "UserLocale.h"
#include "VolumeMirrors.h"
#include "WimApplying.h"
#include "platform/posix/BlockCoding.h"
#include "platform/posix/ChildProcess.h"
#include "platform/posix/Files.h"
#include "platform/posix/Pauses.h"
#include "platform/posix/Shell.h"
#include "platform/posix/SystemPaths.h"
#include "platform/posix/Unpacking.h"
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
  native.deviceStreams = std::make_shared<LinuxDeviceStreams>();
  native.files = std::make_shared<PosixFiles>();
  native.filesInPlace = std::make_shared<LinuxFilesInPlace>();
  native.pauses = std::make_shared<PosixPauses>();
  native.systemPaths = std::make_shared<PosixSystemPaths>();
  native.userLocale = std::make_shared<LinuxUserLocale>();
  native.unpacking = std::make_shared<PosixUnpacking>();
  native.blockCoding = std::make_shared<PosixBlockCoding>();
  native.wimApplying = std::make_shared<LinuxWimApplying>();
  return native;
}

}  // namespace vorlix
