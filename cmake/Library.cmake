# SPDX-License-Identifier: Apache-2.0
# The library, compiled once and offered as a shared and as a static one, and the simulated machine for hosts' tests.

set(VORLIX_SOURCES
    Vorlix/QDSDiskFunctions/BootSectors.cpp
    Vorlix/QDSDiskFunctions/DeviceStreams.cpp
    Vorlix/QDSDiskFunctions/GPTCheck.cpp
    Vorlix/QDSDiskFunctions/HybridMBR.cpp
    Vorlix/QDSDiskFunctions/Log.cpp
    Vorlix/QDSDiskFunctions/PartitionRecords.cpp
    Vorlix/QDSDiskFunctions/PartitionTables.cpp
    Vorlix/QDSDiskFunctions/StoreSlots.cpp
    Vorlix/Vorlix_vers.cpp
    foundation/GUIDPartitionTable.cpp
    foundation/UUID.cpp
    platform/Platform.cpp
    platform/changes/Change.cpp
    platform/changes/Journal.cpp
    platform/changes/StateFolder.cpp
    platform/posix/ChildProcess.cpp
    platform/posix/FileHandle.cpp
    platform/posix/PartitionExtents.cpp
    platform/posix/PipeOutput.cpp
    platform/posix/Shell.cpp
    platform/posix/UserIdentity.cpp)

# The record of a volume, and what it takes to archive it.
list(APPEND VORLIX_SOURCES
     Vorlix/NSNumber+HumanReadable.cpp
     Vorlix/QDVolume.cpp
     Vorlix/QDVolume/Archive.cpp
     Vorlix/QDVolume/Fields.cpp
     Vorlix/QDVolume/SizeMeasurement.cpp
     foundation/AttributedString.cpp
     foundation/Base64.cpp
     foundation/FileManager.cpp
     foundation/KeyedArchive/Archiver.cpp
     foundation/KeyedArchive/Format.cpp
     foundation/KeyedArchive/PropertyList.cpp
     foundation/KeyedArchive/Unarchiver.cpp
    foundation/KeyedArchive/XMLPropertyList.cpp
     foundation/NotificationCenter.cpp
     foundation/PropertyListFile.cpp
     foundation/Utf8.cpp)
if(APPLE)
  list(APPEND VORLIX_SOURCES platform/macos/HostBundle.cpp platform/macos/UserLocale.cpp)
else()
  list(APPEND VORLIX_SOURCES platform/linux/HostBundle.cpp platform/linux/UserLocale.cpp)
endif()

# Programs that are run.
list(APPEND VORLIX_SOURCES
     Vorlix/QDTaskHelper.cpp
     Vorlix/QDTaskHelper/StandardOutput.cpp
     Vorlix/QDTaskWrapperWithBlocks.cpp)

# Device identity, mounting, boot configuration and boot records.
list(APPEND VORLIX_SOURCES
     Vorlix/QDSDiskFunctions/BootConfiguration.cpp
     Vorlix/QDSDiskFunctions/BootRecords.cpp
     Vorlix/QDSDiskFunctions/DeviceIdentity.cpp
     Vorlix/QDSDiskFunctions/Mounting.cpp
     Vorlix/QDSUtilities.cpp
     Vorlix/QDSUtilities/VolumeNames.cpp)

if(APPLE)
  set(VORLIX_ADAPTERS platform/macos)
  list(APPEND VORLIX_SOURCES
       platform/macos/BlockAlignedHandle.cpp
       platform/macos/DescriptorSource.cpp
       platform/macos/DeviceFile.cpp
       platform/macos/DeviceNames.cpp
       platform/macos/DeviceStream.cpp
       platform/macos/DiskArbitration.cpp
       platform/macos/LockedDescriptor.cpp
       platform/macos/NativePlatform.cpp
       platform/macos/Spawning.cpp
       platform/macos/DeviceIdentity.cpp
       platform/macos/Sha256.cpp
       platform/macos/SyncDescriptor.cpp)
else()
  list(APPEND VORLIX_SOURCES
       platform/linux/BlockDevices.cpp
       platform/linux/DescriptorSource.cpp
       platform/linux/DeviceFile.cpp
       platform/linux/DeviceStream.cpp
       platform/linux/DiskArbitration.cpp
       platform/linux/DiskLock.cpp
       platform/linux/NativePlatform.cpp
       platform/linux/Spawning.cpp
       platform/linux/DeviceIdentity.cpp
       platform/linux/Sha256.cpp
       platform/linux/SyncDescriptor.cpp)
endif()

# The I/O registry.
if(APPLE)
  list(APPEND VORLIX_SOURCES
       platform/macos/CFValue.cpp
       platform/macos/IORegistry.cpp)
else()
  list(APPEND VORLIX_SOURCES
       platform/linux/IORegistry.cpp
       platform/linux/ImageDisk.cpp
       platform/linux/ImageFiles.cpp
       platform/linux/KernelDisks.cpp
       platform/linux/PartitionTable.cpp
       platform/linux/RegistryTree.cpp)
endif()

# Run loop, mounting and file copies.
list(APPEND VORLIX_SOURCES platform/posix/CopyRules.cpp)
if(APPLE)
  list(APPEND VORLIX_SOURCES
       platform/macos/FileCopy.cpp
       platform/macos/FilesInPlace.cpp
       platform/macos/ImageDisk.cpp
       platform/macos/MountedVolumes.cpp
       platform/macos/RunLoop.cpp)
else()
  list(APPEND VORLIX_SOURCES
       platform/linux/Command.cpp
       platform/linux/DeviceFacts.cpp
       platform/linux/DiskDescription.cpp
       platform/linux/Dissenters.cpp
       platform/linux/FatLayout.cpp
       platform/linux/FatNames.cpp
       platform/linux/FatTable.cpp
       platform/linux/FatVolume.cpp
       platform/linux/FileCopy.cpp
       platform/linux/FilesInPlace.cpp
       platform/linux/KernelMount.cpp
       platform/linux/MirrorChanges.cpp
       platform/linux/MirrorCopy.cpp
       platform/linux/MirrorPlace.cpp
       platform/linux/MirrorState.cpp
       platform/linux/MirrorTree.cpp
       platform/linux/MirroredVolume.cpp
       platform/linux/MountFolders.cpp
       platform/linux/MountSources.cpp
       platform/linux/MountTable.cpp
       platform/linux/MountedVolumes.cpp
       platform/linux/Mounting.cpp
       platform/linux/Mtools.cpp
       platform/linux/OpenedDevice.cpp
       platform/linux/RunLoop.cpp
       platform/linux/VolumeCopy.cpp
       platform/linux/VolumeDevice.cpp
       platform/linux/VolumeMirrors.cpp
       platform/linux/VolumeOrigin.cpp
       platform/linux/VolumeProbe.cpp
       platform/linux/WriteBack.cpp)
endif()

# The device manager.
list(APPEND VORLIX_SOURCES
     Vorlix/QDDeviceManager/Core.cpp
     Vorlix/QDDeviceManager/Descriptions.cpp
     Vorlix/QDDeviceManager/Listing.cpp
     Vorlix/QDDeviceManager/Lookups.cpp
     Vorlix/QDDeviceManager/Mounting.cpp
     Vorlix/QDDeviceManager/RegistryScans.cpp
     Vorlix/QDDeviceManager/StartupDisk.cpp
     Vorlix/QDDeviceManager/SystemIntegrity.cpp
     Vorlix/QDDeviceManager/WindowsFolders.cpp
     Vorlix/QDDeviceManager/WindowsVersion.cpp)

# The record of a disk, bootability, the check of callers and the system's log.
list(APPEND VORLIX_SOURCES
     Vorlix/QDDiskHelper.cpp
     Vorlix/QDDiskInfo.cpp
     Vorlix/QDSDiskFunctions/SystemLog.cpp
     Vorlix/QDSUtilities/CallerCheck.cpp
     Vorlix/QDSUtilities/SystemIntegrity.cpp)
if(APPLE)
  list(APPEND VORLIX_SOURCES
       platform/macos/CodeSigning.cpp
       platform/macos/SystemLog.cpp)
else()
  list(APPEND VORLIX_SOURCES
       platform/linux/CodeSigning.cpp
       platform/linux/DetachedSignature.cpp
       platform/linux/SigningRequirement.cpp
       platform/linux/SystemLog.cpp
       platform/linux/TrustAnchors.cpp)
endif()

# What the adapters are linked with. On Linux these are pkg-config's names.
set(VORLIX_SYSTEM_INCLUDES)
if(APPLE)
  set(VORLIX_SYSTEM_LIBRARIES "-framework DiskArbitration" "-framework IOKit" "-framework CoreFoundation")
else()
  find_package(PkgConfig REQUIRED)
  set(VORLIX_MODULES blkid mount)
  set(VORLIX_SYSTEM_LIBRARIES)
  foreach(module ${VORLIX_MODULES})
    pkg_check_modules(${module} REQUIRED ${module})
    list(APPEND VORLIX_SYSTEM_LIBRARIES ${${module}_LIBRARIES})
    list(APPEND VORLIX_SYSTEM_INCLUDES ${${module}_INCLUDE_DIRS})
  endforeach()
endif()

# Installed headers stand under one folder, <Vorlix/platform/...>; these links let the sources say the same.
foreach(storey platform foundation)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/include/Vorlix)
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${storey} ${PROJECT_BINARY_DIR}/include/Vorlix/${storey} SYMBOLIC)
endforeach()

add_library(vorlix_headers INTERFACE)
target_include_directories(vorlix_headers INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_compile_features(vorlix_headers INTERFACE cxx_std_20)

add_library(vorlix_objects OBJECT ${VORLIX_SOURCES})
target_link_libraries(vorlix_objects PUBLIC vorlix_headers ${VORLIX_SYSTEM_LIBRARIES})
target_include_directories(vorlix_objects SYSTEM PRIVATE ${VORLIX_SYSTEM_INCLUDES})
target_compile_definitions(vorlix_objects PRIVATE
                           VORLIX_RESOURCE_FOLDER="${CMAKE_INSTALL_FULL_DATADIR}/vorlix")
# The same folder seen from the installed programs and from the installed library, for a prefix that is chosen when it
# is installed. Folders that are given as absolute paths do not move with the prefix.
foreach(from BINDIR LIBDIR)
  set(relative "")
  if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_${from}}" AND NOT IS_ABSOLUTE "${CMAKE_INSTALL_DATADIR}")
    file(RELATIVE_PATH relative "/prefix/${CMAKE_INSTALL_${from}}" "/prefix/${CMAKE_INSTALL_DATADIR}/vorlix")
  endif()
  set_property(SOURCE platform/linux/HostBundle.cpp APPEND PROPERTY
               COMPILE_DEFINITIONS VORLIX_RESOURCES_FROM_${from}="${relative}")
endforeach()

foreach(kind SHARED STATIC)
  string(TOLOWER ${kind} suffix)
  add_library(vorlix_${suffix} ${kind} $<TARGET_OBJECTS:vorlix_objects>)
  target_link_libraries(vorlix_${suffix} PUBLIC vorlix_headers PRIVATE ${VORLIX_SYSTEM_LIBRARIES})
  set_target_properties(vorlix_${suffix} PROPERTIES OUTPUT_NAME vorlix LINKER_LANGUAGE CXX)
endforeach()
set_target_properties(vorlix_shared PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
                                               EXPORT_NAME Vorlix)
set_target_properties(vorlix_static PROPERTIES EXPORT_NAME VorlixStatic)
add_library(Vorlix::Vorlix ALIAS vorlix_shared)
add_library(Vorlix::VorlixStatic ALIAS vorlix_static)

# Says nothing of which of the two libraries a test links; the host's choice serves the simulated machine, too.
add_library(vorlix_simulated STATIC
            platform/simulated/SimulatedArbitration.cpp
            platform/simulated/SimulatedCallers.cpp
            platform/simulated/SimulatedDevices.cpp
            platform/simulated/SimulatedFileCopy.cpp
            platform/simulated/SimulatedHost.cpp
            platform/simulated/SimulatedMachine.cpp
            platform/simulated/SimulatedProcess.cpp
            platform/simulated/SimulatedRegistry.cpp
            platform/simulated/SimulatedRunLoop.cpp)
target_link_libraries(vorlix_simulated PUBLIC vorlix_headers)
set_target_properties(vorlix_simulated PROPERTIES EXPORT_NAME Simulated)
add_library(Vorlix::Simulated ALIAS vorlix_simulated)

# Property lists, the container of archives. The static library's users link it, too.
find_package(PkgConfig REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET GLOBAL libplist-2.0)
target_link_libraries(vorlix_objects PRIVATE PkgConfig::PLIST)
find_package(nlohmann_json REQUIRED)  # the journals' manifests; headers alone
target_link_libraries(vorlix_objects PRIVATE nlohmann_json::nlohmann_json)
target_link_libraries(vorlix_shared PRIVATE PkgConfig::PLIST)
target_link_libraries(vorlix_static PRIVATE PkgConfig::PLIST)
if(PLIST_VERSION VERSION_GREATER_EQUAL 2.3)
  target_compile_definitions(vorlix_objects PRIVATE VORLIX_PLIST_SIGNED=1)
endif()

# Signatures. The folder of the certificates that callers' signatures must lead to is part of the build: a privileged
# host takes it from nobody.
if(APPLE)
  set(VORLIX_SIGNING "-framework Security")
else()
  pkg_check_modules(CRYPTO REQUIRED IMPORTED_TARGET GLOBAL libcrypto)
  set(VORLIX_SIGNING PkgConfig::CRYPTO)
  set(VORLIX_PC_SIGNING ", libcrypto")
  set(VORLIX_ANCHOR_FOLDER "/etc/vorlix/anchors" CACHE PATH "Trusted certificates of callers' signatures")
  target_compile_definitions(vorlix_objects PRIVATE VORLIX_ANCHOR_FOLDER="${VORLIX_ANCHOR_FOLDER}")
endif()
target_link_libraries(vorlix_objects PRIVATE ${VORLIX_SIGNING})
target_link_libraries(vorlix_shared PRIVATE ${VORLIX_SIGNING})
target_link_libraries(vorlix_static PRIVATE ${VORLIX_SIGNING})
