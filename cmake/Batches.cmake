# SPDX-License-Identifier: Apache-2.0
# Compiles a target's files in batches if VORLIX_BATCHES is on. Most of the time for a file goes into headers and
# templates that the other files need too. The release preset compiles each file alone, so it finds a missing #include.

# g++ collects its garbage whenever a small heap has grown by a third, which is an eighth of a batch's compilation. With
# these a batch needs 1.2 GB instead of 1.1.
if(VORLIX_BATCHES AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options("SHELL:--param ggc-min-expand=100" "SHELL:--param ggc-min-heapsize=400000")
endif()

# Puts the sources whose paths match the expression into one batch. A source belongs to the first batch that it matches.
function(vorlix_batch target name expression)
  if(APPLE OR NOT VORLIX_BATCHES)  # the macOS adapters were not checked for clashing names
    return()
  endif()
  get_target_property(sources ${target} SOURCES)
  foreach(source ${sources})
    file(RELATIVE_PATH path ${PROJECT_SOURCE_DIR} ${source})
    get_source_file_property(group ${source} UNITY_GROUP)
    if(path MATCHES "${expression}" AND NOT group)
      set_property(SOURCE ${source} PROPERTY UNITY_GROUP ${name})
    endif()
  endforeach()
  set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
endfunction()

# Compiles these sources alone: each has a name in its unnamed namespace that another file of its batch also has.
function(vorlix_alone)
  set_property(SOURCE ${ARGN} PROPERTY SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

# Most of a small file's compilation is the C++ library's headers. A compiler cache cannot use what was compiled with
# precompiled ones, so only the preset for a single build has them, and scripts/test where there is no cache.
function(vorlix_precompiled target)  # and further headers
  if(VORLIX_PRECOMPILED)
    target_precompile_headers(${target} PRIVATE
        <algorithm> <array> <charconv> <chrono> <filesystem> <fstream> <functional> <map> <memory> <mutex> <optional>
        <set> <span> <sstream> <stdexcept> <string> <string_view> <system_error> <utility> <vector> ${ARGN})
  endif()
endfunction()
