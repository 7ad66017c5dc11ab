# SPDX-License-Identifier: Apache-2.0
# Warnings and sanitizers for every target of the project.
add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(VORLIX_WERROR)
  add_compile_options(-Werror)
endif()
if(VORLIX_SANITIZE)
  add_compile_options(-fsanitize=${VORLIX_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VORLIX_SANITIZE})
endif()
