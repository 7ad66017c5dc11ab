# SPDX-License-Identifier: Apache-2.0
# Removes the files that an installation listed, and the folders that are empty then.
#
#   cmake -D LIST=…/install_manifest.txt -P Uninstall.cmake
if(NOT EXISTS ${LIST})
  message(FATAL_ERROR "Nothing was installed from this build folder: there is no ${LIST}")
endif()
file(STRINGS ${LIST} files)
set(folders "")
foreach(file ${files})
  set(file "$ENV{DESTDIR}${file}")
  if(EXISTS ${file} OR IS_SYMLINK ${file})
    message(STATUS "Removing ${file}")
    file(REMOVE ${file})
  else()
    message(STATUS "Gone already: ${file}")
  endif()
  get_filename_component(folder ${file} DIRECTORY)
  # Folders of this project alone, such as include/Vorlix/platform; not bin or man1, which others may expect to be there.
  while(folder MATCHES "/([Vv]orlix[^/]*)(/|$)")
    list(APPEND folders ${folder})
    get_filename_component(folder ${folder} DIRECTORY)
  endwhile()
endforeach()
list(REMOVE_DUPLICATES folders)
list(SORT folders ORDER DESCENDING)  # what is inside comes before what it is in
foreach(folder ${folders})
  file(GLOB inside ${folder}/* ${folder}/.*)
  if(IS_DIRECTORY ${folder} AND NOT inside)
    file(REMOVE_RECURSE ${folder})
  endif()
endforeach()
