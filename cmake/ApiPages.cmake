# SPDX-License-Identifier: Apache-2.0
# Target docs: HTML pages of the public headers, in docs/html of the build folder. Doxygen is optional.
configure_file(docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
find_program(VORLIX_DOXYGEN doxygen)
if(VORLIX_DOXYGEN)
  add_custom_target(docs COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/docs
                         COMMAND ${VORLIX_DOXYGEN} ${PROJECT_BINARY_DIR}/Doxyfile
                         COMMENT "API pages: docs/html/index.html" VERBATIM)
endif()
