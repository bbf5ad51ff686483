# Compilers are started through ccache where it is there, unless a launcher was named or ZELMEDIA_CCACHE is OFF.
#
# What it needs to know is said here, as without it there is no hit: precompiled headers define what is compiled after
# them, and clones in other folders are to have what gcc compiled in the first one.
option(ZELMEDIA_CCACHE "Start compilers through ccache where it is there" ON)
if(CMAKE_CXX_COMPILER_ID STREQUAL Clang) # or what is compiled behind a precompiled header is never found again
  add_compile_options("SHELL:-Xclang -fno-pch-timestamp")
endif()
if(CMAKE_CXX_COMPILER_LAUNCHER OR NOT ZELMEDIA_CCACHE)
  return()
endif()
find_program(ZELMEDIA_CCACHE_PROGRAM ccache)
mark_as_advanced(ZELMEDIA_CCACHE_PROGRAM)
if(NOT ZELMEDIA_CCACHE_PROGRAM)
  return()
endif()
set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=1
  CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime ${ZELMEDIA_CCACHE_PROGRAM})
