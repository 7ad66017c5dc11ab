# SPDX-License-Identifier: Apache-2.0
# Installs what a host needs: both libraries, the simulated machine, headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS vorlix_headers vorlix_shared vorlix_static vorlix_simulated EXPORT VorlixTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(TARGET vorlix_signing)
  get_property(modules GLOBAL PROPERTY VORLIX_MODULE_TARGETS)
  install(TARGETS ${modules}
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/${VORLIX_MODULE_FOLDER})
endif()
install(DIRECTORY Vorlix DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/Vorlix)
install(EXPORT VorlixTargets NAMESPACE Vorlix:: DESTINATION ${package_folder})
configure_package_config_file(cmake/VorlixConfig.cmake.in ${PROJECT_BINARY_DIR}/VorlixConfig.cmake
                              INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VorlixConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VorlixConfig.cmake ${PROJECT_BINARY_DIR}/VorlixConfigVersion.cmake
        DESTINATION ${package_folder})

# The prefix is relative to the pkg-config file, so the installation can be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
           OUTPUT_VARIABLE VORLIX_PC_TO_PREFIX)
cmake_path(APPEND VORLIX_PC_LIBDIR "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND VORLIX_PC_INCLUDEDIR "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR})
# The additional libraries for a host in C that links the static library.
if(APPLE)
  set(VORLIX_PC_PRIVATE_LIBS "-framework DiskArbitration -framework IOKit -framework CoreFoundation -framework Security -lc++")
else()
  list(TRANSFORM VORLIX_SYSTEM_LIBRARIES PREPEND "-l" OUTPUT_VARIABLE private_libraries)
  list(JOIN private_libraries " " VORLIX_PC_PRIVATE_LIBS)
  string(APPEND VORLIX_PC_PRIVATE_LIBS " -lstdc++")
endif()
# Not as required packages: libarchive's own ones would have to be installed for developers, which a shared libarchive
# does not need.
list(JOIN ARCHIVE_LDFLAGS " " archive_libraries)
string(APPEND VORLIX_PC_PRIVATE_LIBS " ${archive_libraries} -lz")
configure_file(cmake/vorlix.pc.in ${PROJECT_BINARY_DIR}/vorlix.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vorlix.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
