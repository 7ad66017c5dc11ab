# SPDX-License-Identifier: Apache-2.0
# Target check-macos: compiles everything that runs on macOS against the published macOS headers, so that developers on
# other systems notice errors in the adapters. VORLIX_MACOS_HEADERS names a folder with those headers and a script
# "flags" that prints the compiler options for them. docs/macos.md describes the folder.
set(VORLIX_MACOS_HEADERS "$ENV{VORLIX_MACOS_HEADERS}" CACHE PATH "Published macOS headers, for the target check-macos")

if(APPLE OR NOT VORLIX_MACOS_HEADERS)
  return()
endif()
find_program(VORLIX_CLANGXX NAMES clang++ clang++-14 REQUIRED)
execute_process(COMMAND ${VORLIX_MACOS_HEADERS}/flags OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE
                COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(flags UNIX_COMMAND "${flags}")

file(GLOB checked CONFIGURE_DEPENDS platform/macos/*.cpp platform/posix/*.cpp platform/posix/*/*.cpp platform/changes/*.cpp platform/*.cpp foundation/*.cpp foundation/*/*.cpp
     library/*.cpp library/*/*.cpp platform/simulated/*.cpp tests/macos/Declarations.cpp)
list(TRANSFORM VORLIX_COMPANION_DEFINITIONS PREPEND -D OUTPUT_VARIABLE companion_definitions)
set(stamps)
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/check-macos/include)

# Links to these headers alone, because their folder also holds this system's headers.
find_path(VORLIX_PLIST_INCLUDE plist/plist.h REQUIRED)
file(CREATE_LINK ${VORLIX_PLIST_INCLUDE}/plist ${PROJECT_BINARY_DIR}/check-macos/include/plist SYMBOLIC)
find_path(VORLIX_ZSTD_INCLUDE zstd.h REQUIRED)
file(CREATE_LINK ${VORLIX_ZSTD_INCLUDE}/zstd.h ${PROJECT_BINARY_DIR}/check-macos/include/zstd.h SYMBOLIC)
find_path(VORLIX_MD_INCLUDE sha2.h REQUIRED)
foreach(header sha1.h sha2.h)
  file(CREATE_LINK ${VORLIX_MD_INCLUDE}/${header} ${PROJECT_BINARY_DIR}/check-macos/include/${header} SYMBOLIC)
endforeach()
find_path(VORLIX_ARCHIVE_INCLUDE archive.h REQUIRED)
foreach(header archive.h archive_entry.h)
  file(CREATE_LINK ${VORLIX_ARCHIVE_INCLUDE}/${header} ${PROJECT_BINARY_DIR}/check-macos/include/${header} SYMBOLIC)
endforeach()
find_path(VORLIX_ZLIB_INCLUDE zlib.h REQUIRED)
foreach(header zlib.h zconf.h)
  file(CREATE_LINK ${VORLIX_ZLIB_INCLUDE}/${header} ${PROJECT_BINARY_DIR}/check-macos/include/${header} SYMBOLIC)
endforeach()

# The same for the header-only libraries of the command line.
find_path(VORLIX_CLI11_INCLUDE CLI/App.hpp)
find_path(VORLIX_JSON_INCLUDE nlohmann/json.hpp)
if(VORLIX_CLI11_INCLUDE AND VORLIX_JSON_INCLUDE)
  file(CREATE_LINK ${VORLIX_CLI11_INCLUDE}/CLI ${PROJECT_BINARY_DIR}/check-macos/include/CLI SYMBOLIC)
  file(CREATE_LINK ${VORLIX_JSON_INCLUDE}/nlohmann ${PROJECT_BINARY_DIR}/check-macos/include/nlohmann SYMBOLIC)
  file(GLOB tools CONFIGURE_DEPENDS tools/vorlix/*.cpp)
  list(APPEND checked ${tools})
else()
  message(STATUS "check-macos leaves out tools/vorlix: CLI11 or nlohmann-json was not found")
endif()

foreach(source ${checked})
  file(RELATIVE_PATH name ${PROJECT_SOURCE_DIR} ${source})
  string(REPLACE "/" "_" stamp ${name})
  set(stamp ${PROJECT_BINARY_DIR}/check-macos/${stamp}.checked)
  add_custom_command(
    OUTPUT ${stamp}
    COMMAND ${VORLIX_CLANGXX} ${flags} -std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
            -I${PROJECT_SOURCE_DIR} -isystem ${PROJECT_BINARY_DIR}/check-macos/include
            -DVORLIX_VERSION="${PROJECT_VERSION}" ${companion_definitions} -MMD -MT ${stamp} -MF ${stamp}.d ${source}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${source}
    DEPFILE ${stamp}.d
    COMMENT "Checking ${name} for macOS"
    VERBATIM)
  list(APPEND stamps ${stamp})
endforeach()
add_custom_target(check-macos DEPENDS ${stamps})
