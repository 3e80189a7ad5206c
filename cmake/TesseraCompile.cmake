# SPDX-License-Identifier: Apache-2.0
# How everything is compiled: warnings are errors, hardening is on, sanitizers on request.
add_library(tessera_compile INTERFACE)
target_compile_options(tessera_compile INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wformat=2 -Wcast-qual -Wundef -Werror
  -fstack-protector-strong)
target_link_options(tessera_compile INTERFACE
  -Wl,-z,relro,-z,now,-z,noexecstack -Wl,--as-needed)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(tessera_compile INTERFACE -fstack-clash-protection)
endif()

if(TESSERA_SANITIZE)
  add_compile_options(-fsanitize=${TESSERA_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TESSERA_SANITIZE})
elseif(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_options(tessera_compile INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
