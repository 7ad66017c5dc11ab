# SPDX-License-Identifier: Apache-2.0
# Target check-macos: compiles everything that runs on macOS against that system's published headers, so that the
# adapters stay right on machines that cannot run them. VORLIX_MACOS_HEADERS names a folder with those headers and a
# script "flags" that prints the compiler's options for them.
set(VORLIX_MACOS_HEADERS "$ENV{VORLIX_MACOS_HEADERS}" CACHE PATH "Published macOS headers, for the target check-macos")

if(APPLE OR NOT VORLIX_MACOS_HEADERS)
  return()
endif()
find_program(VORLIX_CLANGXX NAMES clang++ REQUIRED)
execute_process(COMMAND ${VORLIX_MACOS_HEADERS}/flags OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE
                COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(flags UNIX_COMMAND "${flags}")

file(GLOB checked CONFIGURE_DEPENDS platform/macos/*.cpp platform/posix/*.cpp platform/*.cpp foundation/*.cpp
     Vorlix/*.cpp Vorlix/*/*.cpp platform/simulated/*.cpp)
set(stamps)
foreach(source ${checked})
  file(RELATIVE_PATH name ${PROJECT_SOURCE_DIR} ${source})
  string(REPLACE "/" "_" stamp ${name})
  set(stamp ${PROJECT_BINARY_DIR}/check-macos/${stamp}.checked)
  add_custom_command(
    OUTPUT ${stamp}
    COMMAND ${VORLIX_CLANGXX} ${flags} -std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
            -I${PROJECT_SOURCE_DIR} -I${PROJECT_BINARY_DIR}/include ${source}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/check-macos
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${source}
    IMPLICIT_DEPENDS CXX ${source}
    COMMENT "Checking ${name} for macOS"
    VERBATIM)
  list(APPEND stamps ${stamp})
endforeach()
add_custom_target(check-macos DEPENDS ${stamps})
