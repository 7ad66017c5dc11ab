# SPDX-License-Identifier: Apache-2.0
# Companion programs: what the library runs instead of linking it. They are installed in a folder of libexec whose name
# has the library's major version, so that those of two versions can coexist, and found by companionProgram()
# (Vorlix/platform/CompanionProgram.h).
set(VORLIX_COMPANION_FOLDER ${CMAKE_INSTALL_LIBEXECDIR}/vorlix-${PROJECT_VERSION_MAJOR})

# Makes a program a companion: built where the command line of the build folder looks, and installed. AddressSanitizer
# reserves terabytes of address space and opens files for its reports, so a companion with sanitizers is confined less.
function(vorlix_companion target)
  set(sanitized 0)
  if(VORLIX_SANITIZE)
    set(sanitized 1)
  endif()
  target_compile_definitions(${target} PRIVATE VORLIX_VERSION="${PROJECT_VERSION}" VORLIX_SANITIZED=${sanitized})
  target_link_libraries(${target} PRIVATE vorlix_headers)
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tools/bin)
  install(TARGETS ${target} RUNTIME DESTINATION ${VORLIX_COMPANION_FOLDER} COMPONENT library)
endfunction()

# The folder absolutely, and relative to the installed programs and to the installed library, for a prefix that is chosen
# at installation. Empty for absolute folders, which do not move with the prefix.
set(VORLIX_COMPANION_DEFINITIONS VORLIX_COMPANION_FOLDER="${CMAKE_INSTALL_FULL_LIBEXECDIR}/vorlix-${PROJECT_VERSION_MAJOR}")
foreach(from BINDIR LIBDIR)
  set(relative "")
  if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_${from}}" AND NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBEXECDIR}")
    file(RELATIVE_PATH relative "/prefix/${CMAKE_INSTALL_${from}}" "/prefix/${VORLIX_COMPANION_FOLDER}")
  endif()
  list(APPEND VORLIX_COMPANION_DEFINITIONS VORLIX_COMPANIONS_FROM_${from}="${relative}")
endforeach()

# Gives these folders to the one source that uses them, in the folder of the caller.
function(vorlix_companion_folders)
  set_property(SOURCE ${PROJECT_SOURCE_DIR}/platform/posix/CompanionFolders.cpp APPEND PROPERTY
               COMPILE_DEFINITIONS ${VORLIX_COMPANION_DEFINITIONS})
endfunction()
