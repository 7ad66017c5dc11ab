# SPDX-License-Identifier: Apache-2.0
# Registers each suite of a GoogleTest program as one test of ctest. CMake's own gtest_discover_tests() makes a test of
# each case: 2,400 processes, whose starts take longer than most cases, above all with sanitizers.

if(CMAKE_SCRIPT_MODE_FILE)  # run after each link of the program, see below
  execute_process(COMMAND ${PROGRAM} --gtest_list_tests OUTPUT_VARIABLE listed COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "[^\n]+" lines "${listed}")
  set(tests "")
  set(launcher "")
  if(LAUNCHER)
    set(launcher "[==[${LAUNCHER}]==]")
  endif()
  foreach(line IN LISTS lines)
    if(line MATCHES "^([^ ]+\\.)( |$)")  # cases are indented
      set(suite "${CMAKE_MATCH_1}")
      string(REGEX REPLACE "\\.$" "" name "${PREFIX}${suite}")
      string(APPEND tests "add_test([==[${name}]==] ${launcher} [==[${PROGRAM}]==] [==[--gtest_filter=${suite}*]==])\n"
             "set_tests_properties([==[${name}]==] PROPERTIES TIMEOUT 300)\n")
    endif()
  endforeach()
  if(tests STREQUAL "")
    message(FATAL_ERROR "${PROGRAM} lists no tests")
  endif()
  file(WRITE ${OUT} "${tests}")
  return()
endif()

set(VORLIX_TEST_SUITES ${CMAKE_CURRENT_LIST_FILE})

# The tests are named <prefix><suite>. The launcher starts each, unless it is empty.
function(vorlix_discover_suites target prefix launcher)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/${target}_suites.cmake)
  add_custom_command(
    TARGET ${target} POST_BUILD BYPRODUCTS ${out}
    COMMAND ${CMAKE_COMMAND} -D PROGRAM=$<TARGET_FILE:${target}> -D PREFIX=${prefix} -D LAUNCHER=${launcher} -D OUT=${out}
            -P ${VORLIX_TEST_SUITES}
    VERBATIM)
  # ctest reads this file. Without the program it says so, instead of running fewer tests.
  set(include ${CMAKE_CURRENT_BINARY_DIR}/${target}_include.cmake)
  file(WRITE ${include} "if(EXISTS [==[${out}]==])\n  include([==[${out}]==])\nelse()\n"
                        "  add_test(${prefix}NOT_BUILT ${target}_NOT_BUILT)\nendif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${include})
endfunction()
