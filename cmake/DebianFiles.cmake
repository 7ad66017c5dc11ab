# SPDX-License-Identifier: Apache-2.0
# Run by CPack before it packs: adds what Debian wants in each package, and packs man pages and change logs.
function(pack file)
  execute_process(COMMAND ${CPACK_VORLIX_GZIP} --best --no-name --force ${file} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} key)
  set(package ${CPACK_DEBIAN_${key}_PACKAGE_NAME})
  set(top ${CPACK_TEMPORARY_DIRECTORY}/${component}${CPACK_PACKAGING_INSTALL_PREFIX}/share)
  set(doc ${top}/doc/${package})
  file(COPY ${CPACK_PROJECT_SOURCE_DIR}/packaging/debian/copyright DESTINATION ${doc}
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(COPY ${CPACK_PROJECT_BINARY_DIR}/debian/changelog DESTINATION ${doc}
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(RENAME ${doc}/changelog ${doc}/changelog.Debian)
  pack(${doc}/changelog.Debian)
  file(COPY ${CPACK_PROJECT_SOURCE_DIR}/packaging/debian/overrides DESTINATION ${top}/lintian/overrides
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(RENAME ${top}/lintian/overrides/overrides ${top}/lintian/overrides/${package})
  file(GLOB pages ${top}/man/man*/*.[0-9])
  foreach(page ${pages})
    pack(${page})
  endforeach()
  if(component STREQUAL development)
    file(COPY ${CPACK_PROJECT_SOURCE_DIR}/CHANGELOG.md DESTINATION ${doc}
         FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    file(RENAME ${doc}/CHANGELOG.md ${doc}/changelog)
    pack(${doc}/changelog)
    file(COPY ${CPACK_PROJECT_SOURCE_DIR}/examples DESTINATION ${doc}
         FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  endif()
endforeach()
