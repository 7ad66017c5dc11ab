# SPDX-License-Identifier: Apache-2.0
# Installs what a host needs: both libraries, the simulated machine, headers, a CMake package and a pkg-config file.
# Components, as packages have them: command, library (what runs), wim (the module that is linked with libwim), development.
include(CMakePackageConfigHelpers)

install(TARGETS vorlix_headers vorlix_shared vorlix_simulated EXPORT VorlixTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(TARGETS vorlix_static EXPORT VorlixStaticTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
if(TARGET vorlix_signing)
  get_property(modules GLOBAL PROPERTY VORLIX_MODULE_TARGETS)
  if(TARGET vorlix_applying)  # a package of its own, because of the licence of libwim (docs/architecture.md)
    list(REMOVE_ITEM modules vorlix_applying)
    install(TARGETS vorlix_applying LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/${VORLIX_MODULE_FOLDER} COMPONENT wim)
  endif()
  install(TARGETS ${modules}
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/${VORLIX_MODULE_FOLDER} COMPONENT library)
endif()
install(DIRECTORY Vorlix DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development FILES_MATCHING PATTERN "*.h")

# The libraries of the static library, as pairs of a target's name and pkg-config's name.
set(VORLIX_STATIC_PACKAGES "PLIST=libplist-2.0 MD=libmd ARCHIVE=libarchive ZSTD=libzstd")
if(NOT APPLE)
  string(APPEND VORLIX_STATIC_PACKAGES " CRYPTO=libcrypto MOUNT=mount VORLIX_BLKID=blkid")
endif()
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/Vorlix)
foreach(set VorlixTargets VorlixStaticTargets)
  install(EXPORT ${set} NAMESPACE Vorlix:: DESTINATION ${package_folder} COMPONENT development)
endforeach()
configure_package_config_file(cmake/VorlixConfig.cmake.in ${PROJECT_BINARY_DIR}/VorlixConfig.cmake
                              INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VorlixConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VorlixConfig.cmake ${PROJECT_BINARY_DIR}/VorlixConfigVersion.cmake
        DESTINATION ${package_folder} COMPONENT development)

# The prefix is relative to the pkg-config file, so the installation can be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
           OUTPUT_VARIABLE VORLIX_PC_TO_PREFIX)
cmake_path(APPEND VORLIX_PC_LIBDIR "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND VORLIX_PC_INCLUDEDIR "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR})
# The additional libraries for a host that links the static library. Not as required packages: pkg-config would want those,
# and what they require in turn, of hosts of the shared library as well.
if(APPLE)
  set(VORLIX_PC_PRIVATE_LIBS "-framework DiskArbitration -framework IOKit -framework CoreFoundation -framework Security -lc++")
else()
  list(TRANSFORM VORLIX_SYSTEM_LIBRARIES PREPEND "-l" OUTPUT_VARIABLE private_libraries)
  list(JOIN private_libraries " " VORLIX_PC_PRIVATE_LIBS)
  string(APPEND VORLIX_PC_PRIVATE_LIBS " -lstdc++")
endif()
set(private_libraries ${PLIST_LDFLAGS} ${MD_LDFLAGS} ${ZSTD_LDFLAGS} ${CRYPTO_LDFLAGS} ${MOUNT_LDFLAGS} ${ARCHIVE_LDFLAGS} -lz)
list(REMOVE_DUPLICATES private_libraries)
foreach(folder ${CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES})
  list(REMOVE_ITEM private_libraries -L${folder})
endforeach()
list(JOIN private_libraries " " private_libraries)
string(APPEND VORLIX_PC_PRIVATE_LIBS " ${private_libraries}")
foreach(name vorlix vorlix-simulated)
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()

# Removes what the last installation from this build folder wrote, by its list.
add_custom_target(uninstall
    COMMAND ${CMAKE_COMMAND} -D LIST=${PROJECT_BINARY_DIR}/install_manifest.txt -P ${PROJECT_SOURCE_DIR}/cmake/Uninstall.cmake
    COMMENT "Removing the installed files" VERBATIM)

# The sources of the commit as a tarball.
find_package(Git QUIET)
find_program(VORLIX_GZIP gzip)
if(GIT_FOUND AND VORLIX_GZIP)
  add_custom_target(dist
      COMMAND ${CMAKE_COMMAND} -D SOURCE=${PROJECT_SOURCE_DIR} -D GIT=${GIT_EXECUTABLE} -D GZIP=${VORLIX_GZIP}
              -D VERSION=${PROJECT_VERSION} -D OUT=${PROJECT_BINARY_DIR}/dist -P ${PROJECT_SOURCE_DIR}/cmake/Dist.cmake
      COMMENT "Packing the sources of the commit" VERBATIM)
endif()
