# Flags for every target, and the warnings that our own targets ask for by linking zelmedia_warnings.

add_compile_definitions(_FILE_OFFSET_BITS=64)

if(ZELMEDIA_SANITIZE)
  add_compile_options(-fsanitize=${ZELMEDIA_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZELMEDIA_SANITIZE})
  if(ZELMEDIA_SANITIZE MATCHES undefined)
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
elseif(NOT ZELMEDIA_COVERAGE)
  add_compile_definitions($<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
  add_compile_options(-fstack-protector-strong)
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()

if(ZELMEDIA_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic -O0 -g)
  add_link_options(--coverage)
endif()

if(ZELMEDIA_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

add_library(zelmedia_warnings INTERFACE)
target_compile_options(zelmedia_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
  -Woverloaded-virtual -Wnull-dereference -Wconversion -Wno-sign-conversion -Wdouble-promotion -Wformat=2
  -Wno-format-nonliteral -Werror
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict> # gcc 12 finds overlaps in std::string where there are none
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
if(ZELMEDIA_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  # Instrumented code confuses these; the plain builds have them.
  target_compile_options(zelmedia_warnings INTERFACE -Wno-maybe-uninitialized -Wno-null-dereference)
endif()
