// SPDX-License-Identifier: Apache-2.0
#include <Vorlix/platform/Platform.h>
#include <Vorlix/platform/VolumeMirrors.h>
#include <Vorlix/platform/WimApplying.h>

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
  native.deviceFile = std::make_shared<MacDeviceFile>();
  native.diskArbitration = std::make_shared<MacDiskArbitration>();
  native.runLoops = std::make_shared<MacRunLoops>();
  native.ioRegistry = std::make_shared<MacIORegistry>();
  native.fileCopy = std::make_shared<MacFileCopy>();
  native.hostBundle = std::make_shared<MacHostBundle>();
  native.childProcess = std::make_shared<PosixChildProcess>();
  native.codeSigning = std::make_shared<MacCodeSigning>();
  native.systemLog = std::make_shared<MacSystemLog>();
  native.mountedVolumes = std::make_shared<MacMountedVolumes>();
  native.userIdentity = std::make_shared<PosixUserIdentity>();
  native.shell = std::make_shared<PosixShell>();
  native.volumeMirrors = std::make_shared<NoVolumeMirrors>();
  native.deviceStreams = std::make_shared<MacDeviceStreams>();
  native.files = std::make_shared<PosixFiles>();
  native.filesInPlace = std::make_shared<MacFilesInPlace>();
  native.pauses = std::make_shared<PosixPauses>();
  native.systemPaths = std::make_shared<PosixSystemPaths>();
  native.userLocale = std::make_shared<MacUserLocale>();
  native.unpacking = std::make_shared<PosixUnpacking>();
  native.blockCoding = std::make_shared<PosixBlockCoding>();
  native.wimApplying = std::make_shared<NoWimApplying>();
  return native;
}

}  // namespace vorlix
