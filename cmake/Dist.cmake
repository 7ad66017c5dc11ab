# SPDX-License-Identifier: Apache-2.0
# Run by the target dist: the sources of the commit as a tarball, whose bytes depend on the commit alone, its checksum, and
# the formula for Homebrew that names both.
#
#   cmake -D SOURCE=… -D GIT=… -D GZIP=… -D VERSION=… -D OUT=… -P Dist.cmake
execute_process(COMMAND ${GIT} -C ${SOURCE} status --porcelain --untracked-files=no OUTPUT_VARIABLE changed
                COMMAND_ERROR_IS_FATAL ANY)
if(changed)
  message(WARNING "Changes that are not committed are not in the tarball:\n${changed}")
endif()
set(name vorlix-${VERSION})
file(MAKE_DIRECTORY ${OUT})
# The order, the times (the commit's) and the owners of the files are git's choice, the rest of a header is gzip's.
execute_process(COMMAND ${GIT} -C ${SOURCE} -c core.autocrlf=false -c tar.umask=022 archive --format=tar --prefix=${name}/ HEAD
                COMMAND ${GZIP} --best --no-name OUTPUT_FILE ${OUT}/${name}.tar.gz COMMAND_ERROR_IS_FATAL ANY)
file(SHA256 ${OUT}/${name}.tar.gz sum)
file(WRITE ${OUT}/${name}.tar.gz.sha256 "${sum}  ${name}.tar.gz\n")
file(READ ${SOURCE}/packaging/homebrew/vorlix.rb formula)
string(REPLACE VORLIX_PLACE ${OUT} formula "${formula}")
string(REPLACE VORLIX_VERSION ${VERSION} formula "${formula}")
string(REPLACE VORLIX_SHA256 ${sum} formula "${formula}")
file(WRITE ${OUT}/vorlix.rb "${formula}")
message(STATUS "${OUT}/${name}.tar.gz\n   sha256 ${sum}")
