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
  set(VORLIX_MODULES blkid)
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
vorlix_batch(vorlix_objects saving "^library/(Allocation|Backup)/")
vorlix_batch(vorlix_objects parts "^library/(QDSUtilities.cpp|.*/)")
vorlix_batch(vorlix_objects faces "^library/")
vorlix_alone(foundation/Base64.cpp foundation/NotificationCenter.cpp)
vorlix_precompiled(vorlix_objects)
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

vorlix_companion_folders()

foreach(kind SHARED STATIC)
  string(TOLOWER ${kind} suffix)
  add_library(vorlix_${suffix} ${kind} $<TARGET_OBJECTS:vorlix_objects>)
  target_link_libraries(vorlix_${suffix} PUBLIC vorlix_headers PRIVATE ${VORLIX_SYSTEM_LIBRARIES})
  set_target_properties(vorlix_${suffix} PROPERTIES OUTPUT_NAME vorlix LINKER_LANGUAGE CXX)
endforeach()
set_target_properties(vorlix_shared PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
                                               EXPORT_NAME Vorlix)
set_target_properties(vorlix_static PROPERTIES EXPORT_NAME VorlixStatic)
if(NOT APPLE AND NOT VORLIX_SANITIZE)  # with sanitizers, their runtime has to see more
  set(script ${PROJECT_SOURCE_DIR}/cmake/exports-linux.map)
  target_link_options(vorlix_shared PRIVATE LINKER:--version-script=${script})
  set_target_properties(vorlix_shared PROPERTIES LINK_DEPENDS ${script})
endif()
add_library(Vorlix::Vorlix ALIAS vorlix_shared)
add_library(Vorlix::VorlixStatic ALIAS vorlix_static)

# The simulated machine does not depend on either library; it uses the one that the host links.
file(GLOB simulated CONFIGURE_DEPENDS platform/simulated/*.cpp)
add_library(vorlix_simulated STATIC ${simulated})
vorlix_batch(vorlix_simulated simulated ".")
target_link_libraries(vorlix_simulated PUBLIC vorlix_headers)
set_target_properties(vorlix_simulated PROPERTIES EXPORT_NAME Simulated)
add_library(Vorlix::Simulated ALIAS vorlix_simulated)

# Property lists, the container format of archives, and SHA-256. Users of the static library link both too.
find_package(PkgConfig REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET GLOBAL libplist-2.0)
pkg_check_modules(MD REQUIRED IMPORTED_TARGET GLOBAL libmd)
foreach(kind objects shared static)
  target_link_libraries(vorlix_${kind} PRIVATE PkgConfig::PLIST PkgConfig::MD)
endforeach()
find_package(nlohmann_json REQUIRED)  # the journals' manifests; header-only
target_link_libraries(vorlix_objects PRIVATE nlohmann_json::nlohmann_json)
if(PLIST_VERSION VERSION_GREATER_EQUAL 2.3)
  target_compile_definitions(vorlix_objects PRIVATE VORLIX_PLIST_SIGNED=1)
endif()

# Unpacking. Its libraries are linked into a module on Linux (below), so that a command that unpacks nothing does not load
# them. macOS links them as they are: its loader does not take long.
if(APPLE)  # Homebrew does not link what the system has without headers
  find_program(VORLIX_BREW brew)
  if(VORLIX_BREW)
    execute_process(COMMAND ${VORLIX_BREW} --prefix libarchive OUTPUT_VARIABLE archive_prefix OUTPUT_STRIP_TRAILING_WHITESPACE)
    list(APPEND CMAKE_PREFIX_PATH "${archive_prefix}")
  endif()
endif()
pkg_check_modules(ARCHIVE REQUIRED IMPORTED_TARGET GLOBAL libarchive)
find_package(ZLIB REQUIRED)
file(GLOB unpacking CONFIGURE_DEPENDS platform/posix/unpacking/*.cpp)
add_library(vorlix_unpacking_objects OBJECT ${unpacking})
vorlix_batch(vorlix_unpacking_objects unpacking ".")
target_link_libraries(vorlix_unpacking_objects PRIVATE vorlix_headers PkgConfig::ARCHIVE ZLIB::ZLIB)
target_sources(vorlix_static PRIVATE $<TARGET_OBJECTS:vorlix_unpacking_objects>)
target_link_libraries(vorlix_static PRIVATE PkgConfig::ARCHIVE ZLIB::ZLIB)
# Packing of blocks, with zstd. Like the check of signatures (below), a module on Linux, so that only what packs loads it.
pkg_check_modules(ZSTD REQUIRED IMPORTED_TARGET GLOBAL libzstd)
file(GLOB blockcoding CONFIGURE_DEPENDS platform/posix/blockcoding/*.cpp)
if(NOT APPLE)
  list(APPEND blockcoding ${PROJECT_SOURCE_DIR}/platform/linux/blockcoding/Hashing.cpp)
endif()
add_library(vorlix_blockcoding_objects OBJECT ${blockcoding})
target_link_libraries(vorlix_blockcoding_objects PRIVATE vorlix_headers PkgConfig::ZSTD)
target_sources(vorlix_static PRIVATE $<TARGET_OBJECTS:vorlix_blockcoding_objects>)
target_link_libraries(vorlix_static PRIVATE PkgConfig::ZSTD)
if(APPLE)
  target_sources(vorlix_shared PRIVATE $<TARGET_OBJECTS:vorlix_blockcoding_objects>)
  target_link_libraries(vorlix_shared PRIVATE PkgConfig::ZSTD)
endif()

# Signatures. The folder of the trusted certificates for callers' signatures is fixed in the build, so that nobody can
# make a privileged host use another one.
if(APPLE)
  foreach(kind objects shared static)
    target_link_libraries(vorlix_${kind} PRIVATE "-framework Security")
  endforeach()
  target_sources(vorlix_shared PRIVATE $<TARGET_OBJECTS:vorlix_unpacking_objects>)
  target_link_libraries(vorlix_shared PRIVATE PkgConfig::ARCHIVE ZLIB::ZLIB)
else()
  pkg_check_modules(CRYPTO REQUIRED IMPORTED_TARGET GLOBAL libcrypto)
  pkg_check_modules(MOUNT REQUIRED IMPORTED_TARGET GLOBAL mount)
  set(VORLIX_ANCHOR_FOLDER "/etc/vorlix/anchors" CACHE PATH "Trusted certificates of callers' signatures")
  target_compile_definitions(vorlix_objects PRIVATE VORLIX_ANCHOR_FOLDER="${VORLIX_ANCHOR_FOLDER}")

  # The folder's name contains the version, so the modules of two library versions can coexist.
  set(VORLIX_MODULE_FOLDER vorlix-${PROJECT_VERSION_MAJOR})

  # Few calls need OpenSSL (signatures, backups), libmount, libarchive, libzstd or libwim, and loading them costs more than
  # the rest of a command. The code that needs them is in modules in the library's own folder. The shared library and the
  # program load a module at the first call. The static library contains the code, because a host that links statically
  # wants no further files.
  #
  # platform/linux/<name>/ has Module.cpp for the module alone and Loader.cpp for those that load it. It has the code too,
  # unless macOS shares the code: then vorlix_<name>_objects exist already. The code of a module APART is not in the
  # static library, which loads the module like the others.
  file(GLOB module_loader CONFIGURE_DEPENDS platform/linux/modules/*.cpp)
  foreach(loader vorlix_loader vorlix_static_loader)
    add_library(${loader} OBJECT ${module_loader})
    target_link_libraries(${loader} PRIVATE vorlix_headers)
  endforeach()
  # A module finds nothing in the program that loads it, so each has the texts of errors itself.
  add_library(vorlix_error_texts OBJECT platform/SystemError.cpp)
  target_link_libraries(vorlix_error_texts PRIVATE vorlix_headers)
  function(vorlix_module name)  # and its libraries
    cmake_parse_arguments(PARSE_ARGV 1 module "APART" "" "")
    set(libraries ${module_UNPARSED_ARGUMENTS})
    set(folder ${PROJECT_SOURCE_DIR}/platform/linux/${name})
    if(NOT TARGET vorlix_${name}_objects)
      file(GLOB sources CONFIGURE_DEPENDS platform/linux/${name}/*.cpp)
      list(REMOVE_ITEM sources ${folder}/Module.cpp ${folder}/Loader.cpp)
      add_library(vorlix_${name}_objects OBJECT ${sources})
      vorlix_batch(vorlix_${name}_objects ${name} ".")
      if(NOT module_APART)
        target_sources(vorlix_static PRIVATE $<TARGET_OBJECTS:vorlix_${name}_objects>)
      endif()
    endif()
    target_link_libraries(vorlix_${name}_objects PRIVATE vorlix_headers ${libraries})
    if(module_APART)
      target_sources(vorlix_static_loader PRIVATE ${folder}/Loader.cpp)
    else()
      target_link_libraries(vorlix_static PRIVATE ${libraries})
    endif()

    add_library(vorlix_${name} MODULE ${folder}/Module.cpp $<TARGET_OBJECTS:vorlix_error_texts>
                $<TARGET_OBJECTS:vorlix_${name}_objects>)
    target_link_libraries(vorlix_${name} PRIVATE vorlix_headers ${libraries})
    if(NOT VORLIX_SANITIZE)  # whose runtime is the program's
      set(script ${PROJECT_SOURCE_DIR}/cmake/exports-module.map)
      target_link_options(vorlix_${name} PRIVATE LINKER:-z,defs LINKER:--version-script=${script})
      set_target_properties(vorlix_${name} PROPERTIES LINK_DEPENDS ${script})
    endif()
    set_target_properties(vorlix_${name} PROPERTIES PREFIX "" OUTPUT_NAME ${name} LINKER_LANGUAGE CXX
                          LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/${VORLIX_MODULE_FOLDER})
    target_sources(vorlix_loader PRIVATE ${folder}/Loader.cpp)
    add_dependencies(vorlix_shared vorlix_${name})
    set_property(GLOBAL APPEND PROPERTY VORLIX_MODULE_TARGETS vorlix_${name})
  endfunction()
  vorlix_module(signing PkgConfig::CRYPTO)
  vorlix_module(mounting PkgConfig::MOUNT)
  vorlix_module(unpacking PkgConfig::ARCHIVE ZLIB::ZLIB)
  vorlix_module(blockcoding PkgConfig::ZSTD PkgConfig::CRYPTO)

  # Files of WIMs. Apart because of the licence: where libwim writes NTFS, it is under the GPL.
  option(VORLIX_WIM "Build the module that applies WIMs, with libwim" ON)
  if(VORLIX_WIM)
    # Not by pkg-config, which wants libntfs-3g's and FUSE's own development files for it.
    find_path(VORLIX_WIM_HEADERS wimlib.h REQUIRED)
    find_library(VORLIX_WIM_LIBRARY wim REQUIRED)
    vorlix_module(applying APART ${VORLIX_WIM_LIBRARY})
    target_include_directories(vorlix_applying_objects SYSTEM PRIVATE ${VORLIX_WIM_HEADERS})
  else()  # the module may come from another build
    foreach(loader vorlix_loader vorlix_static_loader)
      target_sources(${loader} PRIVATE platform/linux/applying/Loader.cpp)
    endforeach()
  endif()
  vorlix_batch(vorlix_loader loaders ".")

  set(libraries_from_programs "")
  if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_BINDIR}" AND NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    file(RELATIVE_PATH libraries_from_programs "/prefix/${CMAKE_INSTALL_BINDIR}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
  endif()
  foreach(loader vorlix_loader vorlix_static_loader)
    target_compile_definitions(${loader} PRIVATE
                               VORLIX_MODULE_FOLDER="${VORLIX_MODULE_FOLDER}"
                               VORLIX_LIBRARY_FOLDER="${CMAKE_INSTALL_FULL_LIBDIR}"
                               VORLIX_LIBRARIES_FROM_BINDIR="${libraries_from_programs}")
  endforeach()
  target_sources(vorlix_shared PRIVATE $<TARGET_OBJECTS:vorlix_loader>)
  target_sources(vorlix_static PRIVATE $<TARGET_OBJECTS:vorlix_static_loader>)
  target_link_libraries(vorlix_static PRIVATE ${CMAKE_DL_LIBS})
  target_link_libraries(vorlix_shared PRIVATE ${CMAKE_DL_LIBS})
endif()
