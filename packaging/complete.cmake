# SPDX-License-Identifier: Apache-2.0
# Read by cpack before it builds a package. If one of these is missing, cpack would only warn, and build packages
# without manual pages or without dependencies.
foreach(program IN ITEMS file dpkg-shlibdeps)
  find_program(path ${program} NO_CACHE)
  if(NOT path)
    message(FATAL_ERROR "${program} is missing; script/package installs it")
  endif()
  unset(path)
endforeach()
foreach(page IN LISTS CPACK_TESSERA_PAGES)
  if(NOT EXISTS ${page})
    message(FATAL_ERROR "the manual page ${page} is missing; script/package makes it")
  endif()
endforeach()
