# SPDX-License-Identifier: Apache-2.0
# Packages in Debian's form: `cpack` in a build folder of the preset "package" writes vorlix, libvorlix1, libvorlix1-wim and libvorlix-dev.
# scripts/packages builds them with the distribution's compiler options, checks them and uses them in a bare system.
if(APPLE)
  return()  # there it is Homebrew: packaging/homebrew/vorlix.rb
endif()
# The project has no address for mail; whoever publishes packages gives theirs.
set(VORLIX_PACKAGE_CONTACT "Vorlix maintainers <maintainers@vorlix.invalid>" CACHE STRING
    "Maintainer of the packages, as in Debian's control files")
set(VORLIX_DEBIAN_REVISION 1 CACHE STRING "Revision of the packages")
set(VORLIX_DEBIAN_VERSION ${PROJECT_VERSION}-${VORLIX_DEBIAN_REVISION})
set(library_package libvorlix${PROJECT_VERSION_MAJOR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vorlix)
set(CPACK_PACKAGE_CONTACT "${VORLIX_PACKAGE_CONTACT}")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL command library development)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${VORLIX_DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

# The first line of a description is its summary. CPack would put the project's own before it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(about "Vorlix reads and writes GUID partition tables and hybrid MBRs, lists and mounts\nvolumes, saves and restores \
Windows volumes, and makes disks start them.\n")

set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME vorlix)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_COMMAND_DESCRIPTION "disks of Macs with Windows: partition tables, boot records, restore
${about}
This package has the command line.")
set(CPACK_DEBIAN_COMMAND_PACKAGE_DEPENDS "${library_package} (= ${VORLIX_DEBIAN_VERSION})")  # its modules and companions
set(CPACK_DEBIAN_COMMAND_PACKAGE_RECOMMENDS mtools)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SUGGESTS "ntfs-3g, unzip")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "disk and boot library for Windows on Mac hardware
${about}
This package has the shared library, its modules and its companion programs.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS mtools)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SUGGESTS ${library_package}-wim)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# CPack writes scripts that call ldconfig for packages with libraries, unless they bring scripts of these names. Debian
# wants the trigger alone; scripts that do not exist are left out.
set(no_scripts ${PROJECT_BINARY_DIR}/debian/postinst ${PROJECT_BINARY_DIR}/debian/postrm)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/triggers ${no_scripts})
set(CPACK_DEBIAN_WIM_PACKAGE_CONTROL_EXTRA ${no_scripts})
configure_file(packaging/debian/libvorlix1.triggers ${PROJECT_BINARY_DIR}/debian/triggers COPYONLY)

if(TARGET vorlix_applying)
  list(APPEND CPACK_COMPONENTS_ALL wim)
endif()
set(CPACK_DEBIAN_WIM_PACKAGE_NAME ${library_package}-wim)
set(CPACK_DEBIAN_WIM_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_WIM_DESCRIPTION "disk and boot library for Windows on Mac hardware (WIM files)
${about}
This package has the module that applies the images of WIM files. It is linked
with libwim, so that the two together are under the GPL.")
set(CPACK_DEBIAN_WIM_PACKAGE_DEPENDS "${library_package} (= ${VORLIX_DEBIAN_VERSION}), ntfs-3g")  # whose mkntfs it runs

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvorlix-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "disk and boot library for Windows on Mac hardware (development)
${about}
This package has the headers, the static library, the files for CMake and
pkg-config, and the simulated machine for tests of programs that use it.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library_package} (= ${VORLIX_DEBIAN_VERSION})")
string(CONCAT CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS  # to link the static library
       "libarchive-dev, libblkid-dev, libmd-dev, libmount-dev, libplist-dev, libssl-dev, libzstd-dev, zlib1g-dev")

# What Debian wants in each package and other installations do not have.
configure_file(packaging/debian/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
find_program(VORLIX_GZIP gzip)
foreach(name PROJECT_SOURCE_DIR PROJECT_BINARY_DIR VORLIX_GZIP)
  set(CPACK_${name} ${${name}})
endforeach()
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/DebianFiles.cmake)
include(CPack)
