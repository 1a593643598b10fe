# SPDX-License-Identifier: BSD-3-Clause
# Copyright (c) the kevrc authors
#
# The README quotes every example file exactly, as a C code block.
#   cmake -DREADME=README.md -DEXAMPLES="a.c;b.c" -P readme_quotes.cmake
file(READ ${README} readme)
foreach(example ${EXAMPLES})
  file(READ ${example} text)
  string(FIND "${readme}" "```c\n${text}```\n" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "${README} does not quote ${example} exactly")
  endif()
endforeach()
