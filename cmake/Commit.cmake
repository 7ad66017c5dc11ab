# SPDX-License-Identifier: Apache-2.0
# Run by each build: writes the command line's version with the commit that is built. Leaves the file alone if it has that
# text already, so that nothing is compiled again.
#
#   cmake -D SOURCE=… -D GIT=… -D VERSION=… -D TEMPLATE=… -D OUT=… -P Commit.cmake
set(COMMIT "")
if(GIT)
  # Sources that were unpacked somewhere in another project's tree have no commit.
  execute_process(COMMAND ${GIT} -C ${SOURCE} rev-parse --show-toplevel OUTPUT_VARIABLE top ERROR_QUIET
                  OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed)
  file(REAL_PATH ${SOURCE} source)
  if(NOT failed AND top STREQUAL source)
    execute_process(COMMAND ${GIT} -C ${SOURCE} describe --always --exclude=* --abbrev=12 "--dirty=, changed"
                    OUTPUT_VARIABLE commit ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed)
    if(NOT failed)
      set(COMMIT " (commit ${commit})")
    endif()
  endif()
endif()
configure_file(${TEMPLATE} ${OUT} @ONLY)
