# SPDX-License-Identifier: Apache-2.0
# Warnings and sanitizers for every target of the project.
add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow)
# At -O3, g++ 12 gives false warnings about overlaps in std::string (GCC bug 105329) and about overlong vectors.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  add_compile_options($<$<CONFIG:Release>:-Wno-restrict> $<$<CONFIG:Release>:-Wno-stringop-overread>)
endif()
if(VORLIX_WERROR)
  add_compile_options(-Werror)
endif()
if(VORLIX_SANITIZE)
  add_compile_options(-fsanitize=${VORLIX_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VORLIX_SANITIZE})
  # Most of a sanitized program would be the texts and places of UBSan's messages, which each start of it reads. A trap
  # has the place from the debug information. Two checks need the runtime library: types in modules are known by name.
  if(VORLIX_SANITIZE MATCHES undefined)
    add_compile_options(-fsanitize-trap=undefined -fno-sanitize-trap=function,vptr)
  endif()
  find_program(VORLIX_LLD ld.lld)  # links these large programs four times as fast as the default linker
  if(VORLIX_LLD AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    add_link_options(-fuse-ld=lld)
  endif()
endif()
