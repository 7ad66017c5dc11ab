# SPDX-License-Identifier: Apache-2.0
# The library, compiled once and linked as a shared and as a static library, and the simulated machine for hosts' tests.

if(APPLE)
  set(VORLIX_ADAPTERS macos)
else()
  set(VORLIX_ADAPTERS linux)
endif()
file(GLOB VORLIX_SOURCES CONFIGURE_DEPENDS
     foundation/*.cpp foundation/*/*.cpp
     platform/*.cpp platform/changes/*.cpp platform/posix/*.cpp platform/${VORLIX_ADAPTERS}/*.cpp
     library/*.cpp library/*/*.cpp)

# The libraries of the adapters. On Linux, VORLIX_MODULES are names for pkg-config.
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

add_library(vorlix_headers INTERFACE)
target_include_directories(vorlix_headers INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_compile_features(vorlix_headers INTERFACE cxx_std_20)

add_library(vorlix_objects OBJECT ${VORLIX_SOURCES})
vorlix_batch(vorlix_objects foundation "^foundation/")
vorlix_batch(vorlix_objects ports "^platform/(posix|changes)/|^platform/[^/]*$")
vorlix_batch(vorlix_objects adapters-1 "^platform/[^/]*/[A-E]")
vorlix_batch(vorlix_objects adapters-2 "^platform/[^/]*/[F-L]")
vorlix_batch(vorlix_objects adapters-3 "^platform/[^/]*/M")
vorlix_batch(vorlix_objects adapters-4 "^platform/")
vorlix_batch(vorlix_objects managers "^library/QDDeviceManager/")
vorlix_batch(vorlix_objects functions "^library/QDSDiskFunctions/")
vorlix_batch(vorlix_objects parts "^library/(QDSUtilities.cpp|.*/)")
vorlix_batch(vorlix_objects faces "^library/")
vorlix_alone(foundation/Base64.cpp foundation/NotificationCenter.cpp library/QDDeviceManager/Mounting.cpp library/QDSDiskFunctions/PartitionTables.cpp)
if(NOT APPLE)
  vorlix_alone(platform/linux/BlockDevices.cpp platform/linux/FatTable.cpp platform/linux/MountFolders.cpp
               platform/linux/MountedVolumes.cpp platform/linux/VolumeCopy.cpp platform/linux/VolumeProbe.cpp)
endif()
target_link_libraries(vorlix_objects PUBLIC vorlix_headers ${VORLIX_SYSTEM_LIBRARIES})
target_include_directories(vorlix_objects SYSTEM PRIVATE ${VORLIX_SYSTEM_INCLUDES})
target_compile_definitions(vorlix_objects PRIVATE
                           VORLIX_RESOURCE_FOLDER="${CMAKE_INSTALL_FULL_DATADIR}/vorlix")
# The same folder relative to the installed programs and to the installed library, for a prefix that is chosen at
# installation. Empty for absolute folders, which do not move with the prefix.
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

# The simulated machine does not depend on either library; it uses the one that the host links.
file(GLOB simulated CONFIGURE_DEPENDS platform/simulated/*.cpp)
add_library(vorlix_simulated STATIC ${simulated})
vorlix_batch(vorlix_simulated simulated ".")
target_link_libraries(vorlix_simulated PUBLIC vorlix_headers)
set_target_properties(vorlix_simulated PROPERTIES EXPORT_NAME Simulated)
add_library(Vorlix::Simulated ALIAS vorlix_simulated)

# Property lists, the container format of archives. Users of the static library link it too.
find_package(PkgConfig REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET GLOBAL libplist-2.0)
target_link_libraries(vorlix_objects PRIVATE PkgConfig::PLIST)
find_package(nlohmann_json REQUIRED)  # the journals' manifests; header-only
target_link_libraries(vorlix_objects PRIVATE nlohmann_json::nlohmann_json)
target_link_libraries(vorlix_shared PRIVATE PkgConfig::PLIST)
target_link_libraries(vorlix_static PRIVATE PkgConfig::PLIST)
if(PLIST_VERSION VERSION_GREATER_EQUAL 2.3)
  target_compile_definitions(vorlix_objects PRIVATE VORLIX_PLIST_SIGNED=1)
endif()

# Signatures. The folder of the trusted certificates for callers' signatures is fixed in the build, so that nobody can
# make a privileged host use another one.
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
